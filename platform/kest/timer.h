#pragma once

#include <cstdint>
#include <string>

#include "kest/loop.h"

namespace kest {

class cService;
class cMessageSink;

// Posts a named message to its sink (or, with a null sink, to the service's
// own map) after a period, and again every period when repeating.
class cTimer {
 public:
  cTimer(cService* service, bool repeat, cMessageSink* sink);
  ~cTimer();
  cTimer(const cTimer&) = delete;
  cTimer& operator=(const cTimer&) = delete;

  // (Re)starts the timer: a running timer starts its period anew.
  bool StartSec(unsigned long seconds, std::string const& name);
  bool StartMs(unsigned long ms, std::string const& name);
  void Stop();
  bool Running() const { return m_id != 0; }

 private:
  void Fire();

  cService* m_service;
  bool m_repeat;
  cMessageSink* m_sink;
  std::string m_name;
  unsigned long m_periodMs = 0;
  cEventLoop::TimerId m_id = 0;
  std::uint64_t m_dueMs = 0;  // current period's end on the loop's clock
};

}  // namespace kest

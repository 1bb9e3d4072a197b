// Traces: one call per event, routed to one sink chosen by the property
// "kest.trace" (stderr | syslog | off). Standard output is never used.
#pragma once

#include <string>
#include <vector>

#include "kest/format.h"

namespace kest {

struct cTraceRecord {
  std::string module;
  std::string level;
  std::string message;
  std::string file;
  long line = 0;
};

class ITraceSink {
 public:
  virtual ~ITraceSink() = default;
  virtual void Write(cTraceRecord const& rec) = 0;
};

class cTracepoint {
 public:
  static void Call(std::string const& module, std::string const& level, unsigned char flags,
                   std::string const& message, std::string const& extra, char const* file,
                   long line);
  // Selects a built-in sink by name: "stderr" (default), "syslog", "off".
  // Returns false for an unknown name and keeps the current sink.
  static bool SelectSink(std::string const& name, std::string const& ident = "kest");
  // Installs a sink of the caller's (tests); nullptr restores the built-in one.
  static void SetSink(ITraceSink* sink);
  // Traces at a numerically higher level than this are dropped ("000" most severe).
  static void SetMaxLevel(std::string const& level);
  // Whether a trace at level would reach a sink: the trace macros skip
  // formatting a message that nobody would see (hot paths trace per request).
  static bool Enabled(char const* level);
  static bool Enabled(std::string const& level) { return Enabled(level.c_str()); }
};

// Captures every trace while alive; tests compare the message texts.
class cTraceCapture : public ITraceSink {
 public:
  cTraceCapture();
  ~cTraceCapture() override;
  void Write(cTraceRecord const& rec) override;
  std::vector<std::string> Messages() const;
  std::vector<cTraceRecord> const& Records() const { return m_records; }
  void Clear() { m_records.clear(); }

 private:
  std::vector<cTraceRecord> m_records;
};

}  // namespace kest

// Trace helper for the framework and tools: module, level and message, with
// the call site filled in.
#define KEST_TRACE(module, level, ...)                                                       \
  do {                                                                                       \
    if (::kest::cTracepoint::Enabled(level))                                                 \
      ::kest::cTracepoint::Call((module), (level), 0, ::kest::FormatString(__VA_ARGS__), "", \
                                __FILE__, __LINE__);                                         \
  } while (0)

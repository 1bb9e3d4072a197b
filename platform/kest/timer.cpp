#include "kest/timer.h"

#include "kest/message.h"
#include "kest/service.h"
#include "kest/trace.h"

namespace kest {

cTimer::cTimer(cService* service, bool repeat, cMessageSink* sink)
    : m_service(service), m_repeat(repeat), m_sink(sink) {}

cTimer::~cTimer() { Stop(); }

bool cTimer::StartSec(unsigned long seconds, std::string const& name) {
  return StartMs(seconds * 1000ul, name);
}

bool cTimer::StartMs(unsigned long ms, std::string const& name) {
  Stop();
  if (m_sink == nullptr && m_service == nullptr) {
    KEST_TRACE("kest", "002", "timer %s has neither a sink nor a service", name.c_str());
    return false;
  }
  if (m_repeat && ms == 0) {
    // A zero period would keep the loop busy forever.
    KEST_TRACE("kest", "002", "repeating timer %s with a period of 0 ms refused", name.c_str());
    return false;
  }
  m_name = name;
  m_periodMs = ms;
  m_dueMs = Loop().NowMs() + ms;
  m_id = Loop().AddTimer(ms, [this] { Fire(); });
  return true;
}

void cTimer::Stop() {
  if (m_id != 0) Loop().CancelTimer(m_id);
  m_id = 0;
}

void cTimer::Fire() {
  m_id = 0;
  if (m_repeat) {
    // Re-arm from the due time so the period does not drift by the loop's
    // latency; periods missed while the loop was stalled are skipped.
    std::uint64_t now = Loop().NowMs();
    m_dueMs += m_periodMs;
    if (m_dueMs <= now) m_dueMs += ((now - m_dueMs) / m_periodMs + 1) * m_periodMs;
    m_id = Loop().AddTimer(m_dueMs - now, [this] { Fire(); });
  }
  cMessageSink* target = m_sink != nullptr ? m_sink : m_service;
  cMessageSink::PostTo(target, cMsg(m_name));
}

}  // namespace kest

// The service control manager on Linux is the init system. Its notify
// protocol is spoken by hand: one datagram of "KEY=VALUE" lines to the Unix
// socket named by NOTIFY_SOCKET ('@' = abstract namespace).
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "kest/service.h"
#include "kest/trace.h"

namespace kest {

cScmService::cScmService() {
  m_onLoopStart = [this] { OnLoopStart(); };
  m_onLoopEnd = [this] {
    Loop().CancelTimer(m_aliveTimer);
    m_aliveTimer = 0;
    Loop().CancelTimer(m_statusTimer);
    m_statusTimer = 0;
    SetServiceStatusStopping();
  };
}

cScmService::~cScmService() { DeInit(); }

bool cScmService::Init(std::string const& name, unsigned int number) {
  DeInit();
  bool ok = cService::Init(name, number);
  char const* sock = std::getenv("NOTIFY_SOCKET");
  if (sock == nullptr || sock[0] == '\0') {
    KEST_TRACE("kest", "005", "%s (%u): no service control manager, running standalone",
               name.c_str(), number);
    return ok;
  }
  std::string path = sock;
  if ((path[0] != '/' && path[0] != '@') || path.size() >= sizeof(sockaddr_un{}.sun_path)) {
    KEST_TRACE("kest", "002", "%s: unusable NOTIFY_SOCKET \"%s\", running standalone", name.c_str(),
               path.c_str());
    return ok;
  }
  m_notifyFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (m_notifyFd < 0) {
    KEST_TRACE("kest", "002", "%s: notify socket (errno:%d/%s), running standalone", name.c_str(),
               errno, std::strerror(errno));
    return ok;
  }
  m_notifyPath = path;

  m_watchdogMs = 0;
  char const* usec = std::getenv("WATCHDOG_USEC");
  char const* pid = std::getenv("WATCHDOG_PID");
  bool forUs = pid == nullptr || pid[0] == '\0' || std::strtol(pid, nullptr, 10) == getpid();
  if (usec != nullptr && forUs) {
    char* end = nullptr;
    unsigned long long us = std::strtoull(usec, &end, 10);
    if (end != usec && *end == '\0' && us > 0) {
      // Ping at half the period so one late round does not trip the watchdog.
      m_watchdogMs = us / 2000;
      if (m_watchdogMs == 0) m_watchdogMs = 1;
    } else {
      KEST_TRACE("kest", "002", "%s: ignoring malformed WATCHDOG_USEC \"%s\"", name.c_str(), usec);
    }
  }
  KEST_TRACE("kest", "005", "%s (%u): reporting to %s, alive check every %llu ms", name.c_str(),
             number, path.c_str(), static_cast<unsigned long long>(m_watchdogMs));
  return ok;
}

void cScmService::DeInit() {
  if (m_aliveTimer != 0) Loop().CancelTimer(m_aliveTimer);
  m_aliveTimer = 0;
  if (m_statusTimer != 0) Loop().CancelTimer(m_statusTimer);
  m_statusTimer = 0;
  if (m_notifyFd >= 0) close(m_notifyFd);
  m_notifyFd = -1;
  m_notifyPath.clear();
  m_watchdogMs = 0;
  cService::DeInit();
}

void cScmService::PreDispatchMessage(cMsg&) {}

void cScmService::OnSystemStatus(std::string const& status) {
  KEST_TRACE("kest", "005", "system status=%s", status.c_str());
}

void cScmService::ProcessMsg(cMsg& msg) {
  PreDispatchMessage(msg);
  cService::ProcessMsg(msg);
}

bool cScmService::SetServiceStatusRunning() {
  return Notify("READY=1\nSTATUS=" + Name() + " running");
}

bool cScmService::SetServiceAlive() { return Notify("WATCHDOG=1"); }

bool cScmService::SetServiceStatusStopping() { return Notify("STOPPING=1"); }

void cScmService::OnLoopStart() {
  // First event of the loop, even if libraries posted work before it ran.
  Loop().PostFront([this] {
    if (Alive(this)) OnScmConnected();
  });
  if (m_watchdogMs != 0) {
    m_aliveDue = Loop().NowMs() + m_watchdogMs;
    ScheduleAliveCheck();
  }
  // The first status right after OnScmConnected, which reports readiness.
  if (m_statusSource) m_statusTimer = Loop().AddTimer(0, [this] { ReportStatus(); });
}

// Polled rather than pushed: the text is built from several libraries'
// state, and an operator needs it no more often than once a second.
void cScmService::ReportStatus() {
  constexpr std::uint64_t kStatusPeriodMs = 1000;
  m_statusTimer = Loop().AddTimer(kStatusPeriodMs, [this] { ReportStatus(); });
  std::string status = m_statusSource();
  if (status == m_status) return;
  m_status = status;
  KEST_TRACE("kest", "005", "%s: %s", Name().c_str(), status.c_str());
  Notify("STATUS=" + status);
}

void cScmService::ScheduleAliveCheck() {
  std::uint64_t now = Loop().NowMs();
  std::uint64_t delay = m_aliveDue > now ? m_aliveDue - now : 0;
  m_aliveTimer = Loop().AddTimer(delay, [this] {
    m_aliveTimer = 0;
    OnAliveCheck();
    // Next check from the due time, not from now, so the pings do not drift.
    m_aliveDue += m_watchdogMs;
    std::uint64_t t = Loop().NowMs();
    if (m_aliveDue <= t) m_aliveDue = t + m_watchdogMs;
    if (m_watchdogMs != 0 && m_notifyFd >= 0) ScheduleAliveCheck();
  });
}

bool cScmService::Notify(std::string const& text) {
  if (m_notifyFd < 0) return true;  // standalone: nobody to tell
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, m_notifyPath.data(), m_notifyPath.size());
  if (addr.sun_path[0] == '@') addr.sun_path[0] = '\0';
  socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_notifyPath.size());
  // Never wait for the manager: a supervisor that stops reading must not
  // stall the loop; a lost watchdog ping is what it asked for.
  ssize_t n = sendto(m_notifyFd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                     reinterpret_cast<sockaddr*>(&addr), len);
  if (n != static_cast<ssize_t>(text.size())) {
    KEST_TRACE("kest", "002", "%s: notify \"%s\" to %s failed (errno:%d/%s)", Name().c_str(),
               text.c_str(), m_notifyPath.c_str(), errno, std::strerror(errno));
    return false;
  }
  return true;
}

}  // namespace kest

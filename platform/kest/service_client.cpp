#include "kest/service_client.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "kest/format.h"
#include "kest/trace.h"

namespace kest {

namespace clienterr {
char const* Name(int code) {
  switch (code) {
    case kNotConnected:
      return "not connected";
    case kTimeout:
      return "timeout";
    case kProtocol:
      return "protocol error";
    case kConnectionLost:
      return "connection lost";
    default:
      return nullptr;
  }
}
}  // namespace clienterr

namespace {

std::int64_t SteadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string Errno(int err) { return FormatString("errno:%d/%s", err, std::strerror(err)); }

}  // namespace

cServiceClient::cServiceClient(cService* service, unsigned timeoutMs, std::string accessPoint,
                               cServiceId const& wanted)
    : m_service(service),
      m_timeoutMs(timeoutMs),
      m_accessPoint(std::move(accessPoint)),
      m_wanted(wanted) {}

cServiceClient::~cServiceClient() {
  m_life.reset();
  m_started = false;
  if (m_retryTimer) Loop().CancelTimer(m_retryTimer);
  if (m_helloTimer) Loop().CancelTimer(m_helloTimer);
  AbandonConnect();
  for (cServiceClientWatcher* w : m_watchers) w->Remove(this);
  if (m_channel) {
    m_channel->m_handler = nullptr;
    m_channel->Close("client destroyed");
    std::shared_ptr<cChannel> dying(std::move(m_channel));
    Loop().Post([dying] {});
  }
}

void cServiceClient::RunLater(std::function<void()> fn) {
  std::weak_ptr<bool> life = m_life;
  Loop().Post([life, fn] {
    if (!life.expired()) fn();
  });
}

bool cServiceClient::Start() {
  if (m_started) return true;
  std::string error;
  if (!cAccessPoint::Parse(m_accessPoint, m_ap, error)) {
    KEST_TRACE(kTransportModule, kTransportError, "service client cannot start: %s", error.c_str());
    return false;
  }
  m_started = true;
  std::int64_t const wait = m_nextTryMs - static_cast<std::int64_t>(Loop().NowMs());
  if (wait <= 0) {
    TryConnect();
  } else if (!m_retryTimer) {
    m_retryTimer = Loop().AddTimer(static_cast<std::uint64_t>(wait), [this] {
      m_retryTimer = 0;
      TryConnect();
    });
  }
  return true;
}

void cServiceClient::Stop() {
  m_started = false;
  if (m_retryTimer) Loop().CancelTimer(m_retryTimer);
  m_retryTimer = 0;
  AbandonConnect();
  if (m_channel) m_channel->Close("stopped");
}

bool cServiceClient::IsConnected() const { return m_greeted && m_channel && m_channel->IsOpen(); }

void cServiceClient::TryConnect() {
  if (!m_started || m_channel || m_connectingFd >= 0) return;
  bool isUnix = m_ap.kind == cAccessPoint::kUnix;
  int fd = socket(isUnix ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    ConnectFailed("socket: " + Errno(errno));
    return;
  }
  sockaddr_storage sa{};
  unsigned len = m_ap.ToSockaddr(sa);
  if (connect(fd, reinterpret_cast<sockaddr*>(&sa), len) == 0) {
    Connected(fd);
    return;
  }
  if (errno == EINPROGRESS || errno == EINTR) {
    m_connectingFd = fd;
    Loop().WatchFd(fd, EPOLLOUT, [this](std::uint32_t events) { OnConnectResult(events); });
    return;
  }
  int err = errno;
  close(fd);
  ConnectFailed(Errno(err));
}

void cServiceClient::OnConnectResult(std::uint32_t) {
  int fd = m_connectingFd;
  Loop().UnwatchFd(fd);
  m_connectingFd = -1;
  int err = 0;
  socklen_t len = sizeof err;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
  if (err != 0) {
    close(fd);
    ConnectFailed(Errno(err));
    return;
  }
  Connected(fd);
}

void cServiceClient::AbandonConnect() {
  if (m_connectingFd < 0) return;
  Loop().UnwatchFd(m_connectingFd);
  close(m_connectingFd);
  m_connectingFd = -1;
}

void cServiceClient::Connected(int fd) {
  s_socket_addr addr;
  std::string peer = cChannel::DescribePeer(fd, addr);
  m_channel.reset(new cChannel(fd, addr, peer, this));
  m_greeted = false;
  m_closeReason.clear();
  cFrame hello = RequestFrame(kHelloOp, cSerializeBuffer());
  hello = HelloFrame(hello.id, m_wanted);
  m_helloId = hello.id;
  m_channel->Send(hello);
  m_helloTimer = Loop().AddTimer(m_timeoutMs, [this] {
    m_helloTimer = 0;
    m_closeReason = FormatString("no answer to the hello within %u ms", m_timeoutMs);
    if (m_channel) m_channel->Close(m_closeReason);
  });
}

void cServiceClient::Greeted(cFrame& frame) {
  std::string why;
  if (JudgeGreeting(frame, m_helloId, m_wanted, m_accessPoint, why) != eGreeting::kAccepted) {
    m_closeReason = why;
    m_channel->Close(why);
    return;
  }
  if (m_helloTimer) Loop().CancelTimer(m_helloTimer);
  m_helloTimer = 0;
  m_greeted = true;
  m_greetedMs = static_cast<std::int64_t>(Loop().NowMs());
  KEST_TRACE(kTransportModule, kTransportInfo, "connected to %s", m_accessPoint.c_str());
  RunLater([this] { OnConnected(); });
}

void cServiceClient::ConnectFailed(std::string const& reason) {
  // One line per attempt, whatever failed, so a peer that keeps refusing
  // costs a line per backoff step and no more.
  KEST_TRACE(kTransportModule, kTransportError, "cannot connect to %s (%s); retrying in %u ms",
             m_accessPoint.c_str(), reason.c_str(), m_backoffMs);
  ScheduleReconnect();
}

void cServiceClient::ScheduleReconnect() {
  if (!m_started || m_retryTimer) return;
  unsigned delay = m_backoffMs;
  m_backoffMs = std::min(m_backoffMs * 2, kBackoffMaxMs);
  m_nextTryMs = static_cast<std::int64_t>(Loop().NowMs()) + delay;
  m_retryTimer = Loop().AddTimer(delay, [this] {
    m_retryTimer = 0;
    TryConnect();
  });
}

void cServiceClient::OnChannelClosed(cChannel* channel, std::string const& reason) {
  if (channel != m_channel.get()) return;
  std::shared_ptr<cChannel> dying(std::move(m_channel));
  Loop().Post([dying] {});
  if (m_helloTimer) Loop().CancelTimer(m_helloTimer);
  m_helloTimer = 0;
  if (!m_posted.empty()) {
    std::size_t lost = m_posted.size();
    m_posted.clear();
    OnPostedLost(lost);
  }
  std::string const why = m_closeReason.empty() ? reason : m_closeReason;
  m_closeReason.clear();
  if (!m_greeted) {
    // Never up: for the watchers and the service nothing happened.
    if (m_started) ConnectFailed(why.empty() ? "closed before answering the hello" : why);
    return;
  }
  m_greeted = false;
  if (static_cast<std::int64_t>(Loop().NowMs()) - m_greetedMs >= kStableMs)
    m_backoffMs = kBackoffFirstMs;
  if (m_started) {
    KEST_TRACE(kTransportModule, kTransportError,
               "connection to %s lost (%s); reconnecting in %u ms", m_accessPoint.c_str(),
               why.c_str(), m_backoffMs);
  }
  RunLater([this] {
    // A watcher may forget this client while hearing of it.
    std::vector<cServiceClientWatcher*> watchers = m_watchers;
    for (cServiceClientWatcher* w : watchers) w->OnDisconnect(this);
    OnDisconnected();
  });
  ScheduleReconnect();
}

void cServiceClient::OnFrame(cChannel* channel, cFrame& frame) {
  if (!m_greeted) {
    Greeted(frame);
    return;
  }
  if (frame.op == kHelloOp) {
    // The server's last word before it closes: kept for the trace of the close.
    cGreeting notice;
    std::string error;
    if (frame.kind == cFrame::kEvent && DecodeRefusal(frame.body, notice, error)) {
      m_closeReason = notice.reason;
    }
    return;
  }
  if (frame.kind == cFrame::kReply) {
    if (m_inRequest && frame.id == m_waitId && !m_gotReply) {
      *m_reply = std::move(frame.body);
      m_gotReply = true;
    } else if (auto it = std::find(m_posted.begin(), m_posted.end(), frame.id);
               it != m_posted.end()) {
      m_posted.erase(it);  // the front one, unless the server answers out of order
      OnPostedReply(frame);
    } else {
      KEST_TRACE(kTransportModule, kTransportError,
                 "dropping unexpected reply (id %u, op %u) from %s", frame.id, frame.op,
                 channel->PeerText().c_str());
    }
    return;
  }
  if (frame.kind != cFrame::kEvent) {
    KEST_TRACE(kTransportModule, kTransportError, "dropping request (op %u) from server %s",
               frame.op, channel->PeerText().c_str());
    return;
  }
  // Events wait in order for the loop, so a subclass never handles one in
  // the middle of its own Request.
  m_events.push_back(std::move(frame));
  if (!m_drainPosted) {
    m_drainPosted = true;
    RunLater([this] { DrainEvents(); });
  }
}

void cServiceClient::DrainEvents() {
  m_drainPosted = false;
  std::weak_ptr<bool> life = m_life;
  while (!m_events.empty()) {
    cFrame frame = std::move(m_events.front());
    m_events.pop_front();
    OnEvent(frame);
    if (life.expired()) return;
  }
}

bool cServiceClient::Sendable(std::uint16_t op, cSerializeBuffer const& body) {
  if (m_inRequest || kFrameHeader - 4 + body.Size() > kMaxFrame) {
    KEST_TRACE(kTransportModule, kTransportError, "request op %u to %s refused: %s", op,
               m_accessPoint.c_str(),
               m_inRequest ? "another request is in progress" : "body exceeds the frame limit");
    return false;
  }
  return true;
}

cFrame cServiceClient::RequestFrame(std::uint16_t op, cSerializeBuffer const& body) {
  cFrame frame;
  frame.kind = cFrame::kRequest;
  frame.id = m_nextId++;
  if (m_nextId == 0) m_nextId = 1;
  frame.op = op;
  frame.body = body;
  return frame;
}

int cServiceClient::Await(std::function<bool()> const& done, std::int64_t deadline) {
  while (!done()) {
    if (!IsConnected()) return clienterr::kConnectionLost;
    std::int64_t left = deadline - SteadyMs();
    if (left <= 0) return clienterr::kTimeout;
    cChannel* channel = m_channel.get();  // stays allocated until the loop runs again
    pollfd p{channel->Fd(), static_cast<short>(POLLIN | (channel->Pending() ? POLLOUT : 0)), 0};
    if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
    if (p.revents & POLLOUT) {
      int err = channel->WriteSome();
      if (err != 0) channel->Close("write failed (" + Errno(err) + ")");
    }
    if (channel->IsOpen() && (p.revents & (POLLIN | POLLHUP | POLLERR))) channel->ReadSome();
  }
  return 0;
}

void cServiceClient::WaitFailed(char const* what, std::uint16_t op, int rc) {
  if (rc == clienterr::kTimeout) {
    KEST_TRACE(kTransportModule, kTransportError,
               "%s op %u to %s got no reply within %u ms; dropping the connection", what, op,
               m_accessPoint.c_str(), m_timeoutMs);
    if (m_channel) m_channel->Close("request timed out");
  } else if (rc == clienterr::kConnectionLost) {
    KEST_TRACE(kTransportModule, kTransportError, "%s op %u to %s failed: connection lost", what,
               op, m_accessPoint.c_str());
  }
}

int cServiceClient::Request(std::uint16_t op, cSerializeBuffer const& body,
                            cSerializeBuffer& reply) {
  if (!IsConnected()) return clienterr::kNotConnected;
  if (!Sendable(op, body)) return clienterr::kProtocol;
  cFrame frame = RequestFrame(op, body);
  std::int64_t deadline = SteadyMs() + m_timeoutMs;
  m_inRequest = true;
  m_waitId = frame.id;
  m_gotReply = false;
  m_reply = &reply;
  int rc = m_channel->Send(frame) ? 0 : clienterr::kConnectionLost;
  if (rc == 0) rc = Await([this] { return m_gotReply; }, deadline);
  m_inRequest = false;
  m_reply = nullptr;
  WaitFailed("request", op, rc);
  return rc;
}

int cServiceClient::Post(std::uint16_t op, cSerializeBuffer const& body) {
  if (!IsConnected()) return clienterr::kNotConnected;
  if (!Sendable(op, body)) return clienterr::kProtocol;
  if (m_posted.size() >= kPostWindow) {
    // Down to half the window, so the next requests leave in one write.
    m_channel->Flush();
    int rc = Await([this] { return m_posted.size() < kPostWindow / 2; }, SteadyMs() + m_timeoutMs);
    if (rc != 0) {
      WaitFailed("posted request", op, rc);
      return rc;
    }
  }
  cFrame frame = RequestFrame(op, body);
  if (!m_channel->Queue(frame)) return clienterr::kConnectionLost;
  m_posted.push_back(frame.id);
  m_lastPostedOp = op;
  return 0;
}

int cServiceClient::Collect() {
  if (m_posted.empty()) return 0;
  if (!IsConnected()) return clienterr::kConnectionLost;
  m_channel->Flush();
  std::uint16_t const op = m_lastPostedOp;
  int rc = Await([this] { return m_posted.empty(); }, SteadyMs() + m_timeoutMs);
  WaitFailed("posted request", op, rc);
  return rc;
}

bool cServiceClient::SendEvent(std::uint16_t op, cSerializeBuffer const& body) {
  if (!IsConnected()) return false;
  cFrame frame;
  frame.kind = cFrame::kEvent;
  frame.op = op;
  frame.body = body;
  return m_channel->Send(frame);
}

void cServiceClient::AddWatcher(cServiceClientWatcher* watcher) {
  if (std::find(m_watchers.begin(), m_watchers.end(), watcher) == m_watchers.end()) {
    m_watchers.push_back(watcher);
  }
}

void cServiceClient::RemoveWatcher(cServiceClientWatcher* watcher) {
  m_watchers.erase(std::remove(m_watchers.begin(), m_watchers.end(), watcher), m_watchers.end());
}

}  // namespace kest

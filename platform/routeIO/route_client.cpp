#include "routeIO/route_client.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "kest/access_point.h"

namespace routeIO {

namespace {

using Clock = std::chrono::steady_clock;

int RemainingMs(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

std::string Errno(char const* what) { return std::string(what) + ": " + std::strerror(errno); }

// Starts a non-blocking connect; returns the socket (connected or in
// progress) or -1 with a reason.
int StartConnect(kest::cAccessPoint const& ap, bool& inProgress, std::string& error) {
  int const family = ap.kind == kest::cAccessPoint::kUnix ? AF_UNIX : AF_INET;
  int fd = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = Errno("socket");
    return -1;
  }
  int rc;
  if (family == AF_UNIX) {
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    if (ap.path.size() >= sizeof(sa.sun_path)) {
      error = "socket path too long: " + ap.path;
      ::close(fd);
      return -1;
    }
    std::memcpy(sa.sun_path, ap.path.c_str(), ap.path.size() + 1);
    rc = ::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa));
  } else {
    // Small requests answered one by one: Nagle would hold each back.
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(ap.ip);
    sa.sin_port = htons(ap.port);
    rc = ::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa));
  }
  inProgress = rc < 0 && errno == EINPROGRESS;
  if (rc < 0 && !inProgress) {
    error = Errno("connect");
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

cRouteClient::~cRouteClient() { Close(); }

bool cRouteClient::Connect(std::string const& accessPoint, int timeoutMs, std::string& error) {
  Close();
  kest::cAccessPoint ap;
  if (!kest::cAccessPoint::Parse(accessPoint, ap, error)) {
    m_lastError = error;
    return false;
  }
  bool inProgress = false;
  int fd = StartConnect(ap, inProgress, error);
  if (fd >= 0 && inProgress) {
    pollfd p{fd, POLLOUT, 0};
    int n;
    do {
      n = ::poll(&p, 1, timeoutMs);
    } while (n < 0 && errno == EINTR);
    int soError = 0;
    socklen_t len = sizeof(soError);
    if (n == 0) {
      error = "connect: timed out after " + std::to_string(timeoutMs) + " ms";
    } else if (n < 0) {
      error = Errno("poll");
    } else if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len) < 0 || soError != 0) {
      error = std::string("connect: ") + std::strerror(soError != 0 ? soError : errno);
    } else {
      inProgress = false;
    }
    if (inProgress) {
      ::close(fd);
      fd = -1;
    }
  }
  if (fd < 0) {
    error = accessPoint + ": " + error;
    m_lastError = error;
    return false;
  }
  m_fd = fd;
  m_timeoutMs = timeoutMs;
  m_accessPoint = accessPoint;
  m_lastError.clear();
  m_greeted = false;
  m_helloId = m_nextId++;
  kest::EncodeFrame(kest::HelloFrame(m_helloId, kService), m_out);
  std::int32_t rc = Pump(eWant::kGreeting);
  if (rc != 0 || !m_greeted) {
    if (rc == routeerr::kTimeout) m_lastError = accessPoint + ": no answer to the hello";
    error = m_lastError;
    Close();
    m_lastError = error;
    return false;
  }
  return true;
}

void cRouteClient::Drop(std::string const& why) {
  if (m_fd >= 0) ::close(m_fd);
  m_fd = -1;
  m_out.clear();
  m_outPos = 0;
  m_reader = kest::cFrameReader();
  m_abandoned.clear();
  m_lastError = why;
}

void cRouteClient::Close() {
  Drop("");
  m_pending.clear();
  m_answers.clear();
}

routeResult cRouteClient::Fail(std::int32_t code, std::string const& why) {
  m_lastError = why;
  return routeResult{false, code};
}

std::int32_t cRouteClient::Post(routeCommand const& cmd) {
  if (m_fd < 0) {
    m_lastError = "not connected";
    return routeerr::kNotConnected;
  }
  kest::cFrame frame;
  frame.kind = kest::cFrame::kRequest;
  frame.op = OpOf(cmd);
  if (!EncodeCommand(cmd, frame.body)) {
    m_lastError = std::string(routeop::Name(frame.op)) + ": a string exceeds " +
                  std::to_string(kest::s_string::kMaxLength) + " bytes";
    return routeerr::kBadRequest;
  }
  if (m_nextId == 0) m_nextId = 1;  // 0 is never a request id
  frame.id = m_nextId++;
  if (m_outPos == m_out.size()) {
    m_out.clear();
    m_outPos = 0;
  }
  kest::EncodeFrame(frame, m_out);
  m_pending.push_back(frame.id);
  if (m_out.size() - m_outPos > kFlushThreshold)
    Pump(eWant::kWritten);  // failures surface in Collect
  return 0;
}

std::int32_t cRouteClient::Flush() {
  if (m_fd < 0) return Fail(routeerr::kNotConnected, "not connected").rc;
  return Pump(eWant::kWritten);
}

routeResult cRouteClient::Collect() {
  if (m_pending.empty()) return Fail(routeerr::kNothingPosted, "nothing posted");
  if (m_answers.empty()) {
    if (m_fd < 0) {
      m_pending.pop_front();
      return Fail(routeerr::kConnectionLost, m_lastError.empty() ? "connection lost" : m_lastError);
    }
    std::int32_t rc = Pump(eWant::kAnswer);
    if (m_answers.empty()) {
      std::uint32_t id = m_pending.front();
      m_pending.pop_front();
      if (rc == routeerr::kTimeout) {
        // Its answer may still come; it must not be taken for a later one.
        m_abandoned.insert(id);
        return Fail(rc, "no answer to request " + std::to_string(id) + " within " +
                            std::to_string(m_timeoutMs) + " ms");
      }
      return Fail(rc, m_lastError);
    }
  }
  cAnswer answer = m_answers.front();
  m_answers.pop_front();
  std::uint32_t id = m_pending.front();
  m_pending.pop_front();
  if (answer.id != id) {
    Drop("answer to request " + std::to_string(answer.id) + " while waiting for " +
         std::to_string(id));
    return Fail(routeerr::kProtocol, m_lastError);
  }
  return answer.result;
}

routeResult cRouteClient::Call(routeCommand const& cmd) {
  if (!m_pending.empty())
    return Fail(routeerr::kBusy, std::to_string(m_pending.size()) + " posted answers uncollected");
  std::int32_t rc = Post(cmd);
  if (rc != 0) return routeResult{false, rc};
  return Collect();
}

routeResult cRouteClient::SetGateway(kest::s_socket_addr const& address, std::string const& tag,
                                     std::string const& ifname, std::uint32_t type,
                                     std::uint32_t priority) {
  return Call(cSetGatewayCmd{address, tag, ifname, type, priority});
}

routeResult cRouteClient::DelGateway(std::string const& tag) { return Call(cDelGatewayCmd{tag}); }

routeResult cRouteClient::SetRoute(kest::s_socket_addr const& network,
                                   kest::s_socket_addr const& netmask,
                                   kest::s_socket_addr const& gateway,
                                   kest::s_socket_addr const& source, std::string const& ifname,
                                   std::string const& tag, std::uint32_t priority) {
  return Call(cSetRouteCmd{network, netmask, gateway, source, ifname, tag, priority});
}

routeResult cRouteClient::DelRoute(std::string const& tag) { return Call(cDelRouteCmd{tag}); }

std::int32_t cRouteClient::Pump(eWant want) {
  Clock::time_point const deadline = Clock::now() + std::chrono::milliseconds(m_timeoutMs);
  for (;;) {
    bool const writing = m_outPos < m_out.size();
    if (want == eWant::kWritten && !writing) return 0;
    if (want == eWant::kAnswer && !m_answers.empty()) return 0;
    if (want == eWant::kGreeting && m_greeted) return 0;
    // Answers are read even while only writing: a server whose replies pile
    // up unread would stop reading our requests, and both sides would wait.
    pollfd p{m_fd, static_cast<short>(POLLIN | (writing ? POLLOUT : 0)), 0};
    int n = ::poll(&p, 1, RemainingMs(deadline));
    if (n < 0) {
      if (errno == EINTR) continue;
      Drop(Errno("poll"));
      return routeerr::kConnectionLost;
    }
    if (n == 0) {
      m_lastError = "timed out";
      return routeerr::kTimeout;
    }
    if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
      std::int32_t rc = ReadAnswers();
      if (rc != 0) return rc;
    }
    if ((p.revents & POLLOUT) && m_outPos < m_out.size()) {
      ssize_t w = ::send(m_fd, m_out.data() + m_outPos, m_out.size() - m_outPos, MSG_NOSIGNAL);
      if (w < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        Drop(Errno("send"));
        return routeerr::kConnectionLost;
      }
      if (w > 0) m_outPos += static_cast<std::size_t>(w);
      if (m_outPos == m_out.size()) {
        m_out.clear();
        m_outPos = 0;
      }
    }
  }
}

std::int32_t cRouteClient::ReadAnswers() {
  std::uint8_t buf[16 * 1024];
  bool eof = false;
  for (;;) {
    ssize_t r = ::recv(m_fd, buf, sizeof(buf), 0);
    if (r > 0) {
      m_reader.Feed(buf, static_cast<std::size_t>(r));
      continue;
    }
    if (r == 0 || errno == ECONNRESET) {
      // A server that closes with our requests unread resets the
      // connection; what it said before (a refusal, answers) still counts.
      eof = true;
    } else if (errno == EINTR) {
      continue;
    } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
      Drop(Errno("recv"));
      return routeerr::kConnectionLost;
    }
    break;
  }
  // Answers that arrived before a close are still handed out.
  kest::cFrame frame;
  std::string error;
  for (;;) {
    kest::cFrameReader::Result res = m_reader.Next(frame, error);
    if (res == kest::cFrameReader::kNeedMore) break;
    routeResult result{false, 0};
    if (res == kest::cFrameReader::kError) {
      Drop("bad frame from the route service: " + error);
      return routeerr::kProtocol;
    }
    if (!m_greeted) {
      if (kest::JudgeGreeting(frame, m_helloId, kService, m_accessPoint, error) !=
          kest::eGreeting::kAccepted) {
        Drop(error);
        return routeerr::kConnectionLost;
      }
      m_greeted = true;
      continue;
    }
    if (frame.kind == kest::cFrame::kEvent && frame.op == kest::kHelloOp) {
      kest::cGreeting notice;
      if (kest::DecodeRefusal(frame.body, notice, error)) {
        Drop(m_accessPoint + " closed the connection: " + notice.reason);
        return routeerr::kConnectionLost;
      }
    }
    if (frame.kind != kest::cFrame::kReply) {
      Drop("frame of kind " + std::to_string(frame.kind) + " from the route service");
      return routeerr::kProtocol;
    }
    if (!DecodeResult(frame.body, result, error)) {
      Drop("bad answer from the route service: " + error);
      return routeerr::kProtocol;
    }
    if (m_abandoned.erase(frame.id) != 0) continue;  // late answer to a timed-out request
    m_answers.push_back(cAnswer{frame.id, result});
  }
  if (eof) {
    Drop(m_greeted ? "connection closed by the route service"
                   : m_accessPoint + " closed the connection before answering the hello");
    return routeerr::kConnectionLost;
  }
  return 0;
}

}  // namespace routeIO

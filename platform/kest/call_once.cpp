#include "kest/call_once.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <vector>

#include "kest/access_point.h"
#include "kest/frame.h"

namespace kest {

namespace {

using Clock = std::chrono::steady_clock;

class cFd {
 public:
  explicit cFd(int fd) : m_fd(fd) {}
  ~cFd() {
    if (m_fd >= 0) close(m_fd);
  }
  int Get() const { return m_fd; }

 private:
  int m_fd;
};

// Waits for events on fd until the deadline; false with a reason otherwise.
bool WaitFor(int fd, short events, Clock::time_point deadline, std::string& error) {
  for (;;) {
    auto const left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd p{fd, events, 0};
    int const n = left > 0 ? poll(&p, 1, static_cast<int>(left)) : 0;
    if (n > 0) return true;
    if (n == 0) {
      error = "timed out";
      return false;
    }
    if (errno != EINTR) {
      error = std::string("poll: ") + std::strerror(errno);
      return false;
    }
  }
}

bool Connect(cAccessPoint const& ap, int fd, Clock::time_point deadline, std::string& error) {
  sockaddr_storage sa{};
  unsigned const len = ap.ToSockaddr(sa);
  if (connect(fd, reinterpret_cast<sockaddr*>(&sa), len) == 0) return true;
  if (errno != EINPROGRESS) {
    error = std::strerror(errno);
    return false;
  }
  if (!WaitFor(fd, POLLOUT, deadline, error)) return false;
  int soError = 0;
  socklen_t sl = sizeof soError;
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &sl);
  if (soError != 0) error = std::strerror(soError);
  return soError == 0;
}

}  // namespace

bool CallOnce(std::string const& accessPoint, cServiceId const& wanted, int timeoutMs,
              std::uint16_t op, cSerializeBuffer const& body, cSerializeBuffer& reply,
              std::string& error) {
  Clock::time_point const deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  cAccessPoint ap;
  if (!cAccessPoint::Parse(accessPoint, ap, error)) return false;
  cFd fd(socket(ap.kind == cAccessPoint::kUnix ? AF_UNIX : AF_INET,
                SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  std::string why;
  if (fd.Get() < 0 || !Connect(ap, fd.Get(), deadline, why)) {
    error = "cannot connect to " + accessPoint + ": " + (fd.Get() < 0 ? std::strerror(errno) : why);
    return false;
  }

  // The request follows the hello without waiting: a server that refuses
  // the hello closes without executing anything after it.
  cFrame const hello = HelloFrame(1, wanted);
  cFrame request;
  request.kind = cFrame::kRequest;
  request.id = 2;
  request.op = op;
  request.body = body;
  std::vector<std::uint8_t> out;
  EncodeFrame(hello, out);
  EncodeFrame(request, out);
  for (std::size_t sent = 0; sent < out.size();) {
    if (!WaitFor(fd.Get(), POLLOUT, deadline, why)) {
      error = "cannot send to " + accessPoint + ": " + why;
      return false;
    }
    ssize_t const n = send(fd.Get(), out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && (errno == EPIPE || errno == ECONNRESET)) break;  // it may have said why
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      error = "cannot send to " + accessPoint + ": " + std::strerror(errno);
      return false;
    }
    if (n > 0) sent += static_cast<std::size_t>(n);
  }

  cFrameReader reader;
  bool greeted = false;
  for (;;) {
    cFrame in;
    switch (reader.Next(in, why)) {
      case cFrameReader::kError:
        error = "bad reply from " + accessPoint + ": " + why;
        return false;
      case cFrameReader::kFrame:
        if (!greeted) {
          if (JudgeGreeting(in, hello.id, wanted, accessPoint, error) != eGreeting::kAccepted) {
            return false;
          }
          greeted = true;
          continue;
        }
        if (in.kind == cFrame::kEvent && in.op == kHelloOp) {
          cGreeting notice;
          if (DecodeRefusal(in.body, notice, why)) {
            error = accessPoint + " closed the connection: " + notice.reason;
            return false;
          }
        }
        if (in.kind != cFrame::kReply || in.id != request.id) continue;  // events come first
        reply = std::move(in.body);
        return true;
      case cFrameReader::kNeedMore:
        break;
    }
    if (!WaitFor(fd.Get(), POLLIN, deadline, why)) {
      error = "no reply from " + accessPoint + ": " + why;
      return false;
    }
    std::uint8_t buf[16 * 1024];
    ssize_t const n = recv(fd.Get(), buf, sizeof buf, 0);
    if (n == 0 || (n < 0 && errno == ECONNRESET && reader.Buffered() == 0)) {
      error = accessPoint + " closed the connection without a reply";
      return false;
    }
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      error = "cannot read from " + accessPoint + ": " + std::strerror(errno);
      return false;
    }
    if (n > 0) reader.Feed(buf, static_cast<std::size_t>(n));
  }
}

}  // namespace kest

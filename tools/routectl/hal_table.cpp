#include "routectl/hal_table.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "hal/hal_protocol.h"
#include "kest/access_point.h"
#include "kest/frame.h"

namespace routectl {

namespace {

using Clock = std::chrono::steady_clock;

int LeftMs(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Waits for events on fd until the deadline; false on timeout or error.
bool WaitFor(int fd, short events, Clock::time_point deadline, std::string& error) {
  for (;;) {
    pollfd p{fd, events, 0};
    int n = ::poll(&p, 1, LeftMs(deadline));
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

class cFd {
 public:
  explicit cFd(int fd) : m_fd(fd) {}
  ~cFd() {
    if (m_fd >= 0) ::close(m_fd);
  }
  int Get() const { return m_fd; }

 private:
  int m_fd;
};

}  // namespace

bool FetchHalTable(std::string const& accessPoint, int timeoutMs, std::vector<std::string>& lines,
                   std::string& error) {
  Clock::time_point const deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  kest::cAccessPoint ap;
  if (!kest::cAccessPoint::Parse(accessPoint, ap, error)) return false;
  sockaddr_storage sa{};
  unsigned len = ap.ToSockaddr(sa);
  int family = ap.kind == kest::cAccessPoint::kUnix ? AF_UNIX : AF_INET;
  cFd fd(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.Get() < 0) {
    error = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  if (::connect(fd.Get(), reinterpret_cast<sockaddr*>(&sa), len) < 0) {
    if (errno != EINPROGRESS) {
      error = accessPoint + ": " + std::strerror(errno);
      return false;
    }
    int soError = 0;
    socklen_t sl = sizeof(soError);
    if (!WaitFor(fd.Get(), POLLOUT, deadline, error)) return false;
    ::getsockopt(fd.Get(), SOL_SOCKET, SO_ERROR, &soError, &sl);
    if (soError != 0) {
      error = accessPoint + ": " + std::strerror(soError);
      return false;
    }
  }

  hal::cHalRequest req;
  req.op = hal::halop::kListRoutes;
  kest::cFrame frame;
  frame.kind = kest::cFrame::kRequest;
  frame.id = 1;
  frame.op = req.op;
  hal::EncodeRequest(req, frame.body);
  std::vector<std::uint8_t> out;
  kest::EncodeFrame(frame, out);
  std::size_t sent = 0;
  while (sent < out.size()) {
    if (!WaitFor(fd.Get(), POLLOUT, deadline, error)) return false;
    ssize_t n = ::send(fd.Get(), out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      error = std::string("send: ") + std::strerror(errno);
      return false;
    }
    if (n > 0) sent += static_cast<std::size_t>(n);
  }

  kest::cFrameReader reader;
  for (;;) {
    kest::cFrame reply;
    kest::cFrameReader::Result r = reader.Next(reply, error);
    if (r == kest::cFrameReader::kError) return false;
    if (r == kest::cFrameReader::kFrame) {
      if (reply.kind != kest::cFrame::kReply || reply.id != frame.id) continue;  // events
      int result = 0;
      if (!hal::DecodeRouteList(reply.body, result, lines, error)) return false;
      if (result != 0) {
        error = "the HAL proxy answered " + std::to_string(result) +
                (result < 0 ? std::string(" (") + std::strerror(-result) + ")" : "");
        return false;
      }
      return true;
    }
    if (!WaitFor(fd.Get(), POLLIN, deadline, error)) return false;
    std::uint8_t buf[16 * 1024];
    ssize_t n = ::recv(fd.Get(), buf, sizeof(buf), 0);
    if (n == 0) {
      error = "the HAL proxy closed the connection";
      return false;
    }
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      error = std::string("recv: ") + std::strerror(errno);
      return false;
    }
    if (n > 0) reader.Feed(buf, static_cast<std::size_t>(n));
  }
}

}  // namespace routectl

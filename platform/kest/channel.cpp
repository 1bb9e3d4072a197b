#include "kest/channel.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "kest/format.h"
#include "kest/loop.h"
#include "kest/trace.h"

namespace kest {
namespace {

// One read per wakeup takes at most this much; the loop is level-triggered,
// so a peer with more to say is served again after the others.
constexpr std::size_t kReadChunk = 16 * 1024;
constexpr int kReadsPerWakeup = 4;
// Sent bytes are dropped from the front of the queue once this many pile up.
constexpr std::size_t kCompactOutAfter = 64 * 1024;
// Answers held back while a read's requests are handled go out once this
// much is queued, so a large answer (a data-store sync in many frames)
// still flows into the socket instead of piling up towards the send limit.
constexpr std::size_t kHoldBackMax = 64 * 1024;

std::int64_t SteadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

cChannel::cChannel(int fd, s_socket_addr peer, std::string peerText, IChannelHandler* handler)
    : m_fd(fd), m_peerText(peerText), m_handler(handler) {
  m_peerInfo.text = std::move(peerText);
  m_peerInfo.addr = peer;
  int flags = fcntl(fd, F_GETFL);
  if (flags >= 0 && !(flags & O_NONBLOCK)) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  sockaddr_storage local{};
  socklen_t len = sizeof local;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) == 0 &&
      local.ss_family == AF_INET) {
    // Requests and replies are small and latency-bound: never wait for Nagle.
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  Loop().WatchFd(fd, EPOLLIN, [this](std::uint32_t events) { OnEvents(events); });
}

cChannel::~cChannel() {
  m_handler = nullptr;
  Close("destroyed");
}

std::string cChannel::DescribePeer(int fd, s_socket_addr& addr) {
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) {
    return FormatString("unknown peer (errno:%d/%s)", errno, std::strerror(errno));
  }
  if (ss.ss_family == AF_INET) {
    auto* in = reinterpret_cast<sockaddr_in*>(&ss);
    std::uint32_t ip = ntohl(in->sin_addr.s_addr);
    std::uint16_t port = ntohs(in->sin_port);
    addr = s_socket_addr(ip, port);
    return FormatString("%u.%u.%u.%u:%u", ip >> 24, (ip >> 16) & 0xff, (ip >> 8) & 0xff, ip & 0xff,
                        static_cast<unsigned>(port));
  }
  if (ss.ss_family == AF_UNIX) {
    ucred cred{};
    socklen_t clen = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &clen) == 0) {
      return FormatString("uid=%u pid=%d", static_cast<unsigned>(cred.uid),
                          static_cast<int>(cred.pid));
    }
    return "unix peer";
  }
  return "unknown peer";
}

bool cChannel::PeerCred(unsigned& uid, unsigned& gid) const {
  ucred cred{};
  socklen_t len = sizeof cred;
  sockaddr_storage ss{};
  socklen_t slen = sizeof ss;
  if (m_fd < 0 || getsockname(m_fd, reinterpret_cast<sockaddr*>(&ss), &slen) != 0 ||
      ss.ss_family != AF_UNIX || getsockopt(m_fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
    return false;
  }
  uid = static_cast<unsigned>(cred.uid);
  gid = static_cast<unsigned>(cred.gid);
  return true;
}

bool cChannel::PeerInGroups(int fd, unsigned gid, std::set<unsigned> const& gids) {
  if (gids.count(gid) != 0) return true;
  // Members of a group are usually members through their supplementary
  // groups, not their login group.
  std::vector<gid_t> groups(64);
  for (int attempt = 0; attempt < 2; ++attempt) {
    socklen_t len = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &len) == 0) {
      groups.resize(len / sizeof(gid_t));
      for (gid_t g : groups) {
        if (gids.count(static_cast<unsigned>(g)) != 0) return true;
      }
      return false;
    }
    if (errno != ERANGE) return false;
    groups.resize(len / sizeof(gid_t) + 1);
  }
  return false;
}

void cChannel::OnEvents(std::uint32_t events) {
  if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
    ReadSome();
    if (!IsOpen()) return;
  }
  if (events & EPOLLOUT) {
    int err = WriteSome();
    if (err != 0) Close(FormatString("write failed (errno:%d/%s)", err, std::strerror(err)));
  }
}

void cChannel::ReadSome() {
  std::uint8_t buf[kReadChunk];
  for (int i = 0; i < kReadsPerWakeup && IsOpen(); ++i) {
    ssize_t n = recv(m_fd, buf, sizeof buf, 0);
    if (n > 0) {
      m_reader.Feed(buf, static_cast<std::size_t>(n));
      if (!Dispatch() || static_cast<std::size_t>(n) < sizeof buf) return;
    } else if (n == 0) {
      if (m_reader.Buffered() > 0) {
        Abort(FormatString("truncated frame: connection closed with %zu bytes of a frame unread",
                           m_reader.Buffered()));
      } else {
        Close("closed by peer");
      }
      return;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return;
    } else if (errno != EINTR) {
      Close(FormatString("read failed (errno:%d/%s)", errno, std::strerror(errno)));
      return;
    }
  }
}

// False once the channel is closed (by a bad frame or by the handler).
bool cChannel::Dispatch() {
  cFrame frame;
  std::string error;
  bool open = false;
  bool const nested = m_dispatching;
  m_dispatching = true;
  while (IsOpen()) {
    cFrameReader::Result res = m_reader.Next(frame, error);
    if (res == cFrameReader::kNeedMore) {
      open = true;
      break;
    }
    if (res == cFrameReader::kError) {
      Abort("bad frame: " + error);
      break;
    }
    if (m_handler) m_handler->OnFrame(this, frame);
  }
  if (!nested && m_handler) m_handler->OnFramesDone(this);
  m_dispatching = nested;
  if (!nested) FlushQueued();
  return open;
}

void cChannel::FlushQueued() {
  if (!IsOpen() || Pending() == 0) return;
  // As in Send: a failed write is left for the loop (EPOLLERR/EPOLLOUT).
  if (WriteSome() != 0 && !m_wantWrite) {
    m_wantWrite = true;
    Loop().ModifyFd(m_fd, EPOLLIN | EPOLLOUT);
  }
}

int cChannel::WriteSome() {
  while (IsOpen() && Pending() > 0) {
    ssize_t n = send(m_fd, m_out.data() + m_outPos, Pending(), MSG_NOSIGNAL);
    if (n > 0) {
      m_outPos += static_cast<std::size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      break;
    } else {
      return n < 0 ? errno : EPIPE;
    }
  }
  if (Pending() == 0) {
    m_out.clear();
    m_outPos = 0;
  } else if (m_outPos >= kCompactOutAfter) {
    m_out.erase(m_out.begin(), m_out.begin() + static_cast<std::ptrdiff_t>(m_outPos));
    m_outPos = 0;
  }
  UpdateInterest();
  return 0;
}

void cChannel::UpdateInterest() {
  bool want = IsOpen() && Pending() > 0;
  if (want == m_wantWrite || !IsOpen()) return;
  m_wantWrite = want;
  Loop().ModifyFd(m_fd, EPOLLIN | (want ? EPOLLOUT : 0u));
}

bool cChannel::Send(cFrame const& frame) { return Append(frame, m_dispatching); }

bool cChannel::Queue(cFrame const& frame) { return Append(frame, true); }

bool cChannel::Append(cFrame const& frame, bool holdBack) {
  if (!IsOpen()) return false;
  std::size_t size = kFrameHeader + frame.body.Size();
  if (size - 4 > kMaxFrame) {
    KEST_TRACE(kTransportModule, kTransportError,
               "not sending op %u to %s: %zu bytes exceed the frame limit of %u", frame.op,
               m_peerText.c_str(), size, kMaxFrame);
    return false;
  }
  if (Pending() + size > m_sendLimit) {
    Abort(FormatString("peer is not reading: %zu bytes unsent, send limit of %zu bytes reached",
                       Pending(), m_sendLimit));
    return false;
  }
  EncodeFrame(frame, m_out);
  // Leaves with the rest once the read is handled.
  if (holdBack && Pending() < kHoldBackMax) return true;
  // A failed write is left for the loop (EPOLLERR/EPOLLOUT), so the handler
  // never hears of a close from inside Send.
  FlushQueued();
  return true;
}

void cChannel::Close(std::string const& reason) {
  if (m_fd < 0) return;
  Loop().UnwatchFd(m_fd);
  ::close(m_fd);
  m_fd = -1;
  m_out.clear();
  m_outPos = 0;
  m_wantWrite = false;
  if (m_handler) m_handler->OnChannelClosed(this, reason);
}

void cChannel::Abort(std::string const& reason) {
  if (m_fd < 0) return;
  KEST_TRACE(kTransportModule, kTransportError, "closing connection %s: %s", m_peerText.c_str(),
             reason.c_str());
  Close(reason);
}

bool cChannel::FlushBlocking(int timeoutMs) {
  std::int64_t deadline = SteadyMs() + timeoutMs;
  while (IsOpen() && Pending() > 0) {
    int err = WriteSome();
    if (err != 0) {
      Close(FormatString("write failed (errno:%d/%s)", err, std::strerror(err)));
      return false;
    }
    if (Pending() == 0) break;
    std::int64_t left = deadline - SteadyMs();
    if (left <= 0) return false;
    pollfd p{m_fd, POLLOUT, 0};
    poll(&p, 1, static_cast<int>(left));
  }
  return IsOpen();
}

}  // namespace kest

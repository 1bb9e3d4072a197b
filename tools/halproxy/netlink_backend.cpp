#include "netlink_backend.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

#include "kest/loop.h"
#include "log.h"

namespace halproxy {

namespace {

// Big enough for any datagram of a route dump: the kernel sizes its dump
// messages by the reader's buffer, and a truncated datagram is lost.
constexpr std::size_t kRecvBuffer = 32 * 1024;
// The kernel answers at once; this only bounds a wait that should never end.
constexpr int kAnswerTimeoutSec = 5;
// Route messages go to the kernel in chunks of at most this many bytes, one
// sendto each: a refresh of thousands of routes costs a handful of system
// calls instead of two per route, and a chunk stays far below the socket's
// send buffer, beyond which the kernel refuses a datagram (EMSGSIZE).
constexpr std::size_t kChunkBytes = 32 * 1024;
// The kernel answers every refused message of a chunk before we read any
// answer, and drops answers that find our receive buffer full (we would only
// see ENOBUFS, not which routes were refused). So a chunk has no more
// messages than the buffer has room for answers. An answer costs the buffer
// what the kernel accounts for it: some 850 bytes for a capped ack with a
// short text on a 64-bit kernel (less on 32-bit); 1.5 KiB leaves room for a
// text of a few hundred bytes.
constexpr int kAnswerRoom = 1536;
// Asked for at the start (the kernel doubles it and caps it at
// net.core.rmem_max): room for the answers of a full chunk of refusals.
// Only a limit: the memory is taken while answers wait, for microseconds.
constexpr int kRecvRoom = 512 * 1024;
// Notification datagrams read per wake-up; the rest waits for the next turn
// of the loop, so a storm of them cannot starve the proxy's clients.
constexpr int kMaxNotificationReads = 64;

std::string ErrnoText(char const* what, int err) {
  return std::string(what) + ": " + std::strerror(err);
}

std::string NoInterface(std::string const& name) { return "no interface '" + name + "'"; }

nl::cNlRoute Ours(cRoute const& route) {
  nl::cNlRoute r;
  r.dst = route.dst;
  r.dstLen = route.prefixLen;
  r.table = RT_TABLE_MAIN;
  r.protocol = nl::kRouteProtocol;
  r.gateway = route.gateway;
  if (route.type == eRouteType::kUnreachable) {
    r.type = RTN_UNREACHABLE;
    r.scope = RT_SCOPE_UNIVERSE;
    r.gateway = 0;
  } else {
    r.type = RTN_UNICAST;
    // Without a gateway the destination is on the link itself.
    r.scope = route.gateway != 0 ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
  }
  return r;
}

// A removal that matches the route it was made from, whatever its scope.
nl::cNlRoute RemovalOf(nl::cNlRoute const& r) {
  nl::cNlRoute del;
  del.dst = r.dst;
  del.dstLen = r.dstLen;
  del.type = r.type;
  del.protocol = nl::kRouteProtocol;
  del.table = RT_TABLE_MAIN;
  del.scope = RT_SCOPE_NOWHERE;
  del.gateway = r.gateway;
  del.priority = r.priority;
  del.hasPriority = r.hasPriority;
  return del;
}

}  // namespace

cNetlinkBackend::~cNetlinkBackend() {
  if (m_events != nullptr) {
    if (m_watching) kest::Loop().UnwatchFd(mnl_socket_get_fd(m_events));
    mnl_socket_close(m_events);
  }
  if (m_nl != nullptr) mnl_socket_close(m_nl);
  if (m_ifFd >= 0) close(m_ifFd);
}

bool cNetlinkBackend::Open(std::string& error) {
  m_nl = mnl_socket_open(NETLINK_ROUTE);
  if (m_nl == nullptr) {
    error = ErrnoText("netlink socket", errno);
    return false;
  }
  if (mnl_socket_bind(m_nl, 0, MNL_SOCKET_AUTOPID) < 0) {
    error = ErrnoText("netlink bind", errno);
    mnl_socket_close(m_nl);
    m_nl = nullptr;
    return false;
  }
  // Extended acks carry the kernel's reason for a refusal into our log;
  // capped acks keep our request out of every answer. Older kernels lack
  // both, which costs only text.
  int on = 1;
  mnl_socket_setsockopt(m_nl, NETLINK_EXT_ACK, &on, sizeof on);
  mnl_socket_setsockopt(m_nl, NETLINK_CAP_ACK, &on, sizeof on);
  int const fd = mnl_socket_get_fd(m_nl);
  timeval tv{kAnswerTimeoutSec, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  int room = kRecvRoom;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  socklen_t roomLen = sizeof room;
  if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, &roomLen) != 0) room = kAnswerRoom;
  m_chunkMessages = room > kAnswerRoom ? static_cast<std::size_t>(room / kAnswerRoom) : 1;
  // A fresh start seeds the numbers from the clock, so answers meant for a
  // previous instance cannot be taken for ours.
  m_seq = static_cast<std::uint32_t>(std::time(nullptr));
  m_recvBuf.resize(kRecvBuffer);
  // Without it lookups fall back to if_nametoindex; only slower.
  m_ifFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  OpenEvents();
  return true;
}

cResult cNetlinkBackend::Transact(std::vector<std::uint8_t> const& msg,
                                  std::vector<nl::cNlRoute>* dump) {
  if (m_nl == nullptr) return {-EBADF, "netlink socket not open"};
  nlmsghdr hdr;
  std::memcpy(&hdr, msg.data(), sizeof hdr);
  if (mnl_socket_sendto(m_nl, msg.data(), msg.size()) < 0) {
    int err = errno;
    return {-err, ErrnoText("netlink send", err)};
  }
  if (m_recvBuf.size() < kRecvBuffer) m_recvBuf.resize(kRecvBuffer);
  std::vector<std::uint8_t>& buf = m_recvBuf;
  for (;;) {
    ssize_t n = mnl_socket_recvfrom(m_nl, buf.data(), buf.size());
    if (n < 0) {
      int err = errno;
      if (err == EINTR) continue;
      if (err == EAGAIN || err == EWOULDBLOCK) err = ETIMEDOUT;
      return {-err, ErrnoText("netlink receive", err)};
    }
    nl::cNlResult res =
        nl::ParseReply(buf.data(), static_cast<std::size_t>(n), hdr.nlmsg_seq, dump);
    if (res.status == nl::cNlResult::kMore) continue;
    if (res.status == nl::cNlResult::kMalformed) {
      return {-EPROTO, "malformed netlink answer: " + res.message};
    }
    return {res.error, res.message};
  }
}

cResult cNetlinkBackend::InterfaceIndex(std::string const& name, std::uint32_t& index) {
  index = 0;
  if (ValidInterfaceName(name)) {
    // Asked afresh for every request (one ioctl; InstallMany asks once per
    // name and call): an index kept longer could outlive its interface and
    // send a route out of another one.
    ifreq req{};
    std::memcpy(req.ifr_name, name.c_str(), name.size());
    if (m_ifFd >= 0 && ioctl(m_ifFd, SIOCGIFINDEX, &req) == 0) {
      index = static_cast<std::uint32_t>(req.ifr_ifindex);
    } else if (m_ifFd < 0) {
      index = if_nametoindex(name.c_str());
    }
  }
  if (index == 0) return {-ENODEV, NoInterface(name)};
  return {};
}

std::string cNetlinkBackend::InterfaceName(std::uint32_t index) {
  // Asked through our own socket: it lives in the namespace of the table.
  ifreq req{};
  req.ifr_ifindex = static_cast<int>(index);
  if (m_ifFd >= 0 && ioctl(m_ifFd, SIOCGIFNAME, &req) == 0) return req.ifr_name;
  char name[IF_NAMESIZE] = {};
  if (m_ifFd < 0 && if_indextoname(index, name) != nullptr) return name;
  return "if" + std::to_string(index);
}

cResult cNetlinkBackend::Install(cRoute const& route, eInstall how) {
  // A chunk of one: one sendto with NLM_F_ACK and one answer, as ever.
  std::vector<cResult> results;
  InstallMany({route}, how, results);
  return results.front();
}

void cNetlinkBackend::InstallMany(std::vector<cRoute> const& routes, eInstall how,
                                  std::vector<cResult>& results) {
  results.assign(routes.size(), cResult());
  std::uint16_t const flags =
      NLM_F_CREATE | (how == eInstall::kReplace ? NLM_F_REPLACE : NLM_F_APPEND);
  // Interface indexes are looked up once per name for the whole call. That
  // is safe: the call lasts microseconds, and an interface replaced within
  // them would race the kernel's handling of the route just the same.
  struct cIfIndex {
    std::string const* name;
    cResult result;
    std::uint32_t index;
  };
  std::vector<cIfIndex> ifaces;  // a handful of names: a list beats a map
  m_batch.clear();
  m_chunk.clear();
  for (std::size_t i = 0; i < routes.size(); ++i) {
    cRoute const& route = routes[i];
    nl::cNlRoute r = Ours(route);
    if (route.type == eRouteType::kUnicast) {
      // The kernel takes an unknown index as "no interface" and picks one
      // itself: a name that does not exist must be an error instead.
      if (!route.ifname.empty()) {
        auto it = std::find_if(ifaces.begin(), ifaces.end(),
                               [&](cIfIndex const& f) { return *f.name == route.ifname; });
        if (it == ifaces.end()) {
          cIfIndex f{&route.ifname, {}, 0};
          f.result = InterfaceIndex(route.ifname, f.index);
          it = ifaces.insert(ifaces.end(), f);
        }
        if (it->result.code != 0) {
          results[i] = it->result;
          continue;
        }
        r.oif = it->index;
      }
      r.prefsrc = route.source;
    }
    r.priority = route.metric;
    r.hasPriority = true;
    nl::AppendNewRoute(m_batch, r, flags, ChunkMessage(i));
    EndChunkMessage(results, false);
  }
  EndChunkMessage(results, true);
}

std::uint32_t cNetlinkBackend::ChunkMessage(std::size_t i) {
  std::uint32_t const seq = NextSeq();
  if (m_chunk.empty()) m_chunkFirstSeq = seq;
  m_chunkLastAt = m_batch.size();
  m_chunk.push_back(i);
  return seq;
}

void cNetlinkBackend::EndChunkMessage(std::vector<cResult>& results, bool last) {
  if (m_chunk.empty()) return;
  if (!last && m_chunk.size() < m_chunkMessages &&
      m_batch.size() + nl::kRouteMessageMax <= kChunkBytes) {
    return;
  }
  SendChunk(results);
  m_chunk.clear();
  m_batch.clear();
}

void cNetlinkBackend::SendChunk(std::vector<cResult>& results) {
  std::vector<std::size_t> const& indexes = m_chunk;
  std::uint32_t const firstSeq = m_chunkFirstSeq;
  std::size_t const lastAt = m_chunkLastAt;
  std::size_t const count = indexes.size();
  std::vector<bool> answered(count, false);
  auto failUnanswered = [&](int rc, std::string const& detail) {
    for (std::size_t k = 0; k < count; ++k) {
      if (answered[k]) continue;
      results[indexes[k]] = {rc, detail};
    }
  };
  if (m_nl == nullptr) {
    failUnanswered(-EBADF, "netlink socket not open");
    return;
  }
  // The kernel handles a datagram's messages in order and answers each one
  // it refuses, with or without NLM_F_ACK: the ack of the last message comes
  // after every refusal of the chunk.
  nlmsghdr last;
  std::memcpy(&last, m_batch.data() + lastAt, sizeof last);
  last.nlmsg_flags |= NLM_F_ACK;
  std::memcpy(m_batch.data() + lastAt, &last, sizeof last);
  if (mnl_socket_sendto(m_nl, m_batch.data(), m_batch.size()) < 0) {
    int err = errno;
    failUnanswered(-err, ErrnoText("netlink send", err));
    return;
  }
  if (m_recvBuf.size() < kRecvBuffer) m_recvBuf.resize(kRecvBuffer);
  std::string malformed;
  // The kernel has handled the whole chunk when sendto returns: after an
  // overrun (ENOBUFS) every answer still to come is already queued. Those
  // are read without waiting, so they count and the next chunk starts on an
  // empty buffer; the routes left unanswered fail with ENOBUFS.
  bool overrun = false;
  for (;;) {
    ssize_t n =
        overrun ? recv(mnl_socket_get_fd(m_nl), m_recvBuf.data(), m_recvBuf.size(), MSG_DONTWAIT)
                : mnl_socket_recvfrom(m_nl, m_recvBuf.data(), m_recvBuf.size());
    if (n < 0) {
      int err = errno;
      if (err == EINTR) continue;
      if (err == ENOBUFS && !overrun) {
        overrun = true;
        continue;
      }
      if (overrun) {
        err = ENOBUFS;
      } else if (err == EAGAIN || err == EWOULDBLOCK) {
        err = ETIMEDOUT;
      }
      failUnanswered(-err, ErrnoText("netlink receive", err));
      return;
    }
    m_acks.clear();
    bool ok = nl::ParseAcks(m_recvBuf.data(), static_cast<std::size_t>(n), firstSeq,
                            static_cast<std::uint32_t>(count), m_acks, malformed);
    bool done = false;
    for (nl::cNlAck& ack : m_acks) {
      std::size_t const k = ack.seq - firstSeq;
      if (answered[k]) continue;  // the first answer counts
      answered[k] = true;
      results[indexes[k]] = {ack.error, ack.error != 0 ? std::move(ack.message) : std::string()};
      done = done || k + 1 == count;
    }
    if (!ok) {
      failUnanswered(-EPROTO, "malformed netlink answer: " + malformed);
      return;
    }
    if (done) {
      // Routes without an answer were installed (only refusals are answered),
      // unless answers were lost.
      if (overrun) failUnanswered(-ENOBUFS, ErrnoText("netlink receive", ENOBUFS));
      return;
    }
  }
}

void cNetlinkBackend::OpenEvents() {
  // Opened with the request socket, so both live in the same namespace.
  m_events = mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (m_events == nullptr ||
      mnl_socket_bind(m_events, RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE,
                      MNL_SOCKET_AUTOPID) < 0) {
    // Routes lost behind our back then come back with the refresh only.
    HALPROXY_LOG(kLevelWarning, "no kernel notifications: %s", std::strerror(errno));
    if (m_events != nullptr) mnl_socket_close(m_events);
    m_events = nullptr;
    return;
  }
  int room = kRecvRoom;
  setsockopt(mnl_socket_get_fd(m_events), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  // Our own changes come back as notifications too, one per route: the
  // kernel drops them before they are queued (the port in the header is the
  // requester's; the kernel sends one message per notification datagram),
  // so a refresh of many routes costs no wake-ups and cannot overrun us.
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(nlmsghdr, nlmsg_pid)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(mnl_socket_get_portid(m_nl)), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFFu),
  };
  sock_fprog prog{static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
  // Without it we only read and skip them.
  setsockopt(mnl_socket_get_fd(m_events), SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog);
}

bool cNetlinkBackend::Watch(std::function<void()> changed) {
  m_changed = std::move(changed);
  if (m_events == nullptr || m_watching) return m_watching;
  m_watching = kest::Loop().WatchFd(mnl_socket_get_fd(m_events), EPOLLIN,
                                    [this](std::uint32_t) { ReadNotifications(); });
  return m_watching;
}

void cNetlinkBackend::ReadNotifications() {
  if (m_recvBuf.size() < kRecvBuffer) m_recvBuf.resize(kRecvBuffer);
  std::uint32_t const own = mnl_socket_get_portid(m_nl);
  bool changed = false;
  // Bounded: a flapping link must not keep the loop here.
  for (int reads = 0; reads < kMaxNotificationReads; ++reads) {
    ssize_t n = recv(mnl_socket_get_fd(m_events), m_recvBuf.data(), m_recvBuf.size(), 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      // ENOBUFS: notifications were lost, so anything may have happened.
      if (errno == ENOBUFS) changed = true;
      break;
    }
    nl::cNlNews news;
    std::string malformed;
    if (!nl::ParseNotifications(m_recvBuf.data(), static_cast<std::size_t>(n), own, news,
                                malformed)) {
      HALPROXY_LOG(kLevelWarning, "malformed kernel notification: %s", malformed.c_str());
    }
    changed = changed || news.oursGone || news.othersChanged || news.linkChanged;
  }
  if (changed && m_changed) m_changed();
}

cResult cNetlinkBackend::Remove(cRoute const& route) {
  std::vector<cResult> results;
  RemoveMany({route}, results);
  return results.front();
}

void cNetlinkBackend::RemoveMany(std::vector<cRoute> const& routes, std::vector<cResult>& results) {
  results.assign(routes.size(), cResult());
  m_batch.clear();
  m_chunk.clear();
  for (std::size_t i = 0; i < routes.size(); ++i) {
    nl::cNlRoute r = Ours(routes[i]);
    r.priority = routes[i].metric;
    r.hasPriority = true;
    nl::AppendDelRoute(m_batch, RemovalOf(r), ChunkMessage(i));
    EndChunkMessage(results, false);
  }
  EndChunkMessage(results, true);
  for (cResult& result : results) {
    if (result.code == -ESRCH) result = {};  // gone already
  }
}

cResult cNetlinkBackend::List(std::vector<cTableRoute>& routes) {
  std::vector<nl::cNlRoute> all;
  cResult result = Transact(nl::BuildRouteDump(NextSeq()), &all);
  if (result.code != 0) return result;
  routes.clear();
  for (auto const& r : all) {
    if (r.table != RT_TABLE_MAIN) continue;
    cTableRoute entry;
    cRoute& route = entry.route;
    route.dst = r.dst;
    route.prefixLen = r.dstLen;
    route.type = r.type == RTN_UNICAST       ? eRouteType::kUnicast
                 : r.type == RTN_UNREACHABLE ? eRouteType::kUnreachable
                                             : eRouteType::kOther;
    route.gateway = r.gateway;
    route.source = r.prefsrc;
    route.metric = r.priority;
    if (r.oif != 0 && route.type == eRouteType::kUnicast) route.ifname = InterfaceName(r.oif);
    entry.ours = r.protocol == nl::kRouteProtocol;
    routes.push_back(std::move(entry));
  }
  return {};
}

}  // namespace halproxy

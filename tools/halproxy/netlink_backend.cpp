#include "netlink_backend.h"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

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

bool IsDefault(nl::cNlRoute const& r) { return r.dstLen == 0 && r.type == RTN_UNICAST; }

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
  return true;
}

int cNetlinkBackend::Transact(std::vector<std::uint8_t> const& msg,
                              std::vector<nl::cNlRoute>* dump) {
  m_detail.clear();
  if (m_nl == nullptr) {
    m_detail = "netlink socket not open";
    return -EBADF;
  }
  nlmsghdr hdr;
  std::memcpy(&hdr, msg.data(), sizeof hdr);
  if (mnl_socket_sendto(m_nl, msg.data(), msg.size()) < 0) {
    int err = errno;
    m_detail = ErrnoText("netlink send", err);
    return -err;
  }
  if (m_recvBuf.size() < kRecvBuffer) m_recvBuf.resize(kRecvBuffer);
  std::vector<std::uint8_t>& buf = m_recvBuf;
  for (;;) {
    ssize_t n = mnl_socket_recvfrom(m_nl, buf.data(), buf.size());
    if (n < 0) {
      int err = errno;
      if (err == EINTR) continue;
      if (err == EAGAIN || err == EWOULDBLOCK) err = ETIMEDOUT;
      m_detail = ErrnoText("netlink receive", err);
      return -err;
    }
    nl::cNlResult res = nl::ParseReply(buf.data(), static_cast<std::size_t>(n), hdr.nlmsg_seq, dump);
    if (res.status == nl::cNlResult::kMore) continue;
    if (res.status == nl::cNlResult::kMalformed) {
      m_detail = "malformed netlink answer: " + res.message;
      return -EPROTO;
    }
    m_detail = res.message;
    return res.error;
  }
}

int cNetlinkBackend::InterfaceIndex(std::string const& name, std::uint32_t& index) {
  index = 0;
  if (ValidInterfaceName(name)) {
    // Asked afresh for every request (one ioctl; ConfigureRoutes asks once
    // per name and call): an index kept longer could outlive its interface
    // and send a route out of another one.
    ifreq req{};
    std::memcpy(req.ifr_name, name.c_str(), name.size());
    if (m_ifFd >= 0 && ioctl(m_ifFd, SIOCGIFINDEX, &req) == 0) {
      index = static_cast<std::uint32_t>(req.ifr_ifindex);
    } else if (m_ifFd < 0) {
      index = if_nametoindex(name.c_str());
    }
  }
  if (index == 0) {
    m_detail = NoInterface(name);
    return -ENODEV;
  }
  return 0;
}

int cNetlinkBackend::ConfigureRoute(cRoute const& route) {
  // A chunk of one: one sendto with NLM_F_ACK and one answer, as ever.
  std::vector<int> results;
  std::vector<std::string> details;
  ConfigureRoutes({route}, results, details);
  return results.front();
}

void cNetlinkBackend::ConfigureRoutes(std::vector<cRoute> const& routes, std::vector<int>& results,
                                      std::vector<std::string>& details) {
  results.assign(routes.size(), 0);
  details.assign(routes.size(), std::string());
  // Interface indexes are looked up once per name for the whole call. That
  // is safe: the call lasts microseconds, and an interface replaced within
  // them would race the kernel's handling of the route just the same.
  struct cIfIndex {
    std::string const* name;
    int rc;
    std::uint32_t index;
  };
  std::vector<cIfIndex> ifaces;  // a handful of names: a list beats a map
  std::vector<std::size_t> indexes;  // the routes whose messages are in m_batch
  std::uint32_t firstSeq = 0;
  std::size_t lastAt = 0;  // where m_batch's last message starts
  m_batch.clear();
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
          cIfIndex f{&route.ifname, 0, 0};
          f.rc = InterfaceIndex(route.ifname, f.index);
          it = ifaces.insert(ifaces.end(), f);
        }
        if (it->rc != 0) {
          results[i] = it->rc;
          details[i] = NoInterface(route.ifname);
          continue;
        }
        r.oif = it->index;
      }
      r.prefsrc = route.source;
    }
    r.priority = route.metric;
    r.hasPriority = true;
    std::uint32_t const seq = NextSeq();
    if (indexes.empty()) firstSeq = seq;
    lastAt = m_batch.size();
    // Create or replace by (destination, prefix, metric): the daemon repeats
    // every request, and an identical route is left untouched. SendChunk asks
    // for the ack of the chunk's last message only.
    nl::AppendNewRoute(m_batch, r, NLM_F_CREATE | NLM_F_REPLACE, seq);
    indexes.push_back(i);
    if (indexes.size() >= m_chunkMessages || m_batch.size() + nl::kRouteMessageMax > kChunkBytes) {
      SendChunk(firstSeq, lastAt, indexes, results, details);
      indexes.clear();
      m_batch.clear();
    }
  }
  if (!indexes.empty()) SendChunk(firstSeq, lastAt, indexes, results, details);
  m_detail = routes.empty() ? std::string() : details.back();
}

void cNetlinkBackend::SendChunk(std::uint32_t firstSeq, std::size_t lastAt,
                                std::vector<std::size_t> const& indexes, std::vector<int>& results,
                                std::vector<std::string>& details) {
  std::size_t const count = indexes.size();
  std::vector<bool> answered(count, false);
  auto failUnanswered = [&](int rc, std::string const& detail) {
    for (std::size_t k = 0; k < count; ++k) {
      if (answered[k]) continue;
      results[indexes[k]] = rc;
      details[indexes[k]] = detail;
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
    ssize_t n = overrun ? recv(mnl_socket_get_fd(m_nl), m_recvBuf.data(), m_recvBuf.size(),
                               MSG_DONTWAIT)
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
      results[indexes[k]] = ack.error;
      if (ack.error != 0) details[indexes[k]] = std::move(ack.message);
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

int cNetlinkBackend::Delete(nl::cNlRoute const& route) {
  int rc = Transact(nl::BuildDelRoute(route, NextSeq()), nullptr);
  if (rc == -ESRCH) {
    m_detail.clear();
    return 0;
  }
  return rc;
}

int cNetlinkBackend::RemoveRoute(cRoute const& route) {
  m_detail.clear();
  nl::cNlRoute r = Ours(route);
  nl::cNlRoute del = RemovalOf(r);
  del.hasPriority = false;  // the request names no metric: the first route of ours goes
  return Delete(del);
}

int cNetlinkBackend::DumpOurs(std::vector<nl::cNlRoute>& routes) {
  std::vector<nl::cNlRoute> all;
  int rc = Transact(nl::BuildRouteDump(NextSeq()), &all);
  if (rc != 0) return rc;
  routes.clear();
  for (auto const& r : all) {
    if (r.protocol == nl::kRouteProtocol && r.table == RT_TABLE_MAIN) routes.push_back(r);
  }
  return 0;
}

int cNetlinkBackend::ConfigureDefault(std::uint32_t gateway, std::uint32_t metric) {
  m_detail.clear();
  // NLM_F_REPLACE would make two default gateways of equal metric replace
  // each other at every refresh: look first, and append only what is missing.
  std::vector<nl::cNlRoute> ours;
  if (int rc = DumpOurs(ours)) return rc;
  bool present = false;
  std::vector<nl::cNlRoute> stale;
  for (auto const& r : ours) {
    if (!IsDefault(r) || r.gateway != gateway) continue;
    if (r.priority == metric) {
      present = true;
    } else {
      stale.push_back(r);
    }
  }
  if (!present) {
    cRoute def;
    def.gateway = gateway;
    def.metric = metric;
    nl::cNlRoute r = Ours(def);
    r.priority = metric;
    r.hasPriority = true;
    int rc = Transact(nl::BuildNewRoute(r, NLM_F_ACK | NLM_F_CREATE | NLM_F_APPEND, NextSeq()),
                      nullptr);
    if (rc == -EEXIST) rc = 0;  // it appeared since the dump: as good as added
    if (rc != 0) return rc;
  }
  // The gateway's old metric goes only once the new route is in, so the
  // device is never without this default gateway.
  int result = 0;
  for (auto const& r : stale) {
    int rc = Delete(RemovalOf(r));
    if (result == 0) result = rc;
  }
  return result;
}

int cNetlinkBackend::RemoveDefault(std::uint32_t gateway) {
  m_detail.clear();
  std::vector<nl::cNlRoute> ours;
  if (int rc = DumpOurs(ours)) return rc;
  int result = 0;
  for (auto const& r : ours) {
    if (!IsDefault(r) || r.gateway != gateway) continue;
    int rc = Delete(RemovalOf(r));
    if (result == 0) result = rc;
  }
  return result;
}

int cNetlinkBackend::ListRoutes(std::vector<std::string>& lines) {
  m_detail.clear();
  std::vector<nl::cNlRoute> ours;
  if (int rc = DumpOurs(ours)) return rc;
  lines.clear();
  for (auto const& r : ours) {
    cRoute route;
    route.dst = r.dst;
    route.prefixLen = r.dstLen;
    route.type = r.type == RTN_UNREACHABLE ? eRouteType::kUnreachable : eRouteType::kUnicast;
    route.gateway = r.gateway;
    route.source = r.prefsrc;
    route.metric = r.priority;
    if (r.oif != 0 && route.type == eRouteType::kUnicast) {
      char name[IF_NAMESIZE] = {};
      route.ifname = if_indextoname(r.oif, name) ? name : "if" + std::to_string(r.oif);
    }
    lines.push_back(FormatRoute(route));
  }
  return 0;
}

}  // namespace halproxy

#include "netlink_backend.h"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

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

std::string ErrnoText(char const* what, int err) {
  return std::string(what) + ": " + std::strerror(err);
}

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
  timeval tv{kAnswerTimeoutSec, 0};
  setsockopt(mnl_socket_get_fd(m_nl), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
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
    // Asked afresh every time (one ioctl): a cached index could outlive
    // its interface and send a route out of another one.
    ifreq req{};
    std::memcpy(req.ifr_name, name.c_str(), name.size());
    if (m_ifFd >= 0 && ioctl(m_ifFd, SIOCGIFINDEX, &req) == 0) {
      index = static_cast<std::uint32_t>(req.ifr_ifindex);
    } else if (m_ifFd < 0) {
      index = if_nametoindex(name.c_str());
    }
  }
  if (index == 0) {
    m_detail = "no interface '" + name + "'";
    return -ENODEV;
  }
  return 0;
}

int cNetlinkBackend::ConfigureRoute(cRoute const& route) {
  m_detail.clear();
  nl::cNlRoute r = Ours(route);
  if (route.type == eRouteType::kUnicast) {
    // The kernel takes an unknown index as "no interface" and picks one
    // itself: a name that does not exist must be an error instead.
    if (!route.ifname.empty()) {
      if (int rc = InterfaceIndex(route.ifname, r.oif)) return rc;
    }
    r.prefsrc = route.source;
  }
  r.priority = route.metric;
  r.hasPriority = true;
  // Create or replace by (destination, prefix, metric): the daemon repeats
  // every request, and an identical route is left untouched.
  return Transact(nl::BuildNewRoute(r, NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE, NextSeq()),
                  nullptr);
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

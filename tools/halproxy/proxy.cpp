#include "proxy.h"

#include <cerrno>
#include <cstring>

#include "kest/frame.h"
#include "kest/types.h"
#include "log.h"

namespace halproxy {

namespace {

bool ParseAddress(char const* what, std::string const& text, std::uint32_t& ip,
                  std::string& detail) {
  kest::s_socket_addr addr;
  if (!addr.InitFromString(text, 0)) {
    detail = std::string("unparsable ") + what + " '" + text + "'";
    return false;
  }
  ip = addr.GetIP();
  return true;
}

// The destination of a route request: network and netmask as texts, the
// network masked (the daemon masks too, but a peer need not).
bool ParsePrefix(hal::cHalRequest const& req, cRoute& route, std::string& detail) {
  std::uint32_t network = 0, netmask = 0;
  if (!ParseAddress("network", req.network, network, detail) ||
      !ParseAddress("netmask", req.netmask, netmask, detail)) {
    return false;
  }
  if (!PrefixLength(netmask, route.prefixLen)) {
    detail = "netmask '" + req.netmask + "' is not contiguous";
    return false;
  }
  route.dst = network & MaskOf(route.prefixLen);
  return true;
}

bool FaultOf(std::uint16_t op, cFaultBackend::eFault& out) {
  switch (op) {
    case hal::halop::kConfigureIPGateway:
      out = cFaultBackend::eFault::kReplace;
      return true;
    case hal::halop::kConfigureIpDefaultGateway:
      out = cFaultBackend::eFault::kAppend;
      return true;
    case hal::halop::kRemoveIPGateway:
    case hal::halop::kRemoveIPDefaultGateway:
      out = cFaultBackend::eFault::kRemove;
      return true;
    default:
      return false;
  }
}

// A pass after a storm of notifications waits this long after the last one;
// a loss after a quiet spell is repaired at once.
constexpr std::uint64_t kRestoreGapMs = 50;

}  // namespace

cHalProxy::cHalProxy(IRouteBackend& backend, eUnavailable unavailable, unsigned keepRefreshes,
                     cFaultBackend* faults)
    : m_keeper(backend, keepRefreshes), m_faults(faults), m_unavailable(unavailable) {
  m_keeper.SetNotified(backend.Watch([this] {
    HALPROXY_LOG(kLevelDebug, "the table changed behind our back: reading it again");
    m_keeper.Invalidate();
    ScheduleRestore();
  }));
}

cHalProxy::~cHalProxy() {
  if (m_restoreTimer != 0) kest::Loop().CancelTimer(m_restoreTimer);
}

void cHalProxy::ScheduleRestore() {
  if (m_restoreTimer != 0) return;  // a pass is due: it sees this change too
  std::uint64_t const now = kest::Loop().NowMs();
  std::uint64_t const since = now - m_lastRestoreMs;
  std::uint64_t const delay = !m_restored || since >= kRestoreGapMs ? 0 : kRestoreGapMs - since;
  m_restoreTimer = kest::Loop().AddTimer(delay, [this] {
    m_restoreTimer = 0;
    m_restored = true;
    m_lastRestoreMs = kest::Loop().NowMs();
    m_keeper.Restore();
  });
}

int cHalProxy::RouteOf(hal::cHalRequest const& req, cRoute& route, std::string& detail) {
  bool const configure = req.op == hal::halop::kConfigureIPGateway;
  if (!ParsePrefix(req, route, detail) ||
      !ParseAddress("gateway", req.gateway, route.gateway, detail) ||
      (configure && !ParseAddress("source", req.source, route.source, detail))) {
    return -EINVAL;
  }
  if (!req.gwAvailable) {
    if (m_unavailable == eUnavailable::kSkip) {
      detail = "gateway unavailable, nothing to do";
      return 0;
    }
    cRoute unreachable;
    unreachable.type = eRouteType::kUnreachable;
    unreachable.dst = route.dst;
    unreachable.prefixLen = route.prefixLen;
    // Same metric as the real route, so the real one replaces it in place
    // once the gateway is back.
    unreachable.metric = req.metric;
    route = unreachable;
  } else {
    route.ifname = req.ifname;
    route.metric = req.metric;
  }
  return 1;
}

int cHalProxy::RouteRequest(hal::cHalRequest const& req, std::string& detail,
                            void const* connection) {
  cRoute route;
  int rc = RouteOf(req, route, detail);
  if (rc <= 0) return rc;
  cResult result;
  if (req.op == hal::halop::kConfigureIPGateway) {
    m_keeper.Configure({route}, m_results, connection);
    result = m_results.front();
  } else {
    result = m_keeper.Remove(route);
  }
  detail = result.detail;
  return result.code;
}

int cHalProxy::DefaultRequest(hal::cHalRequest const& req, std::string& detail,
                              void const* connection) {
  std::uint32_t gateway = 0;
  if (!ParseAddress("gateway", req.gateway, gateway, detail)) return -EINVAL;
  if (gateway == 0) {
    detail = "a default gateway needs an address";
    return -EINVAL;
  }
  cResult result = req.op == hal::halop::kConfigureIpDefaultGateway
                       ? m_keeper.ConfigureDefault(gateway, req.metric, connection)
                       : m_keeper.RemoveDefault(gateway);
  detail = result.detail;
  return result.code;
}

int cHalProxy::FaultRequest(hal::cHalRequest const& req, std::string& detail) {
  if (m_faults == nullptr) {
    detail = "test operations are off (halproxy --enable-test-ops)";
    return -EPERM;
  }
  cFaultBackend::eFault what;
  if (!FaultOf(req.faultOp, what)) {
    detail = "no route operation " + std::to_string(req.faultOp);
    return -EINVAL;
  }
  if (req.faultCode > 0) {
    detail = "a fault is a negative errno value";
    return -EINVAL;
  }
  m_faults->Inject(what, req.faultCode, req.faultCount);
  return 0;
}

int cHalProxy::Execute(hal::cHalRequest const& req, std::vector<std::string>& lines,
                       std::string& detail, void const* connection) {
  detail.clear();
  switch (req.op) {
    case hal::halop::kConfigureIPGateway:
    case hal::halop::kRemoveIPGateway:
      return RouteRequest(req, detail, connection);
    case hal::halop::kConfigureIpDefaultGateway:
    case hal::halop::kRemoveIPDefaultGateway:
      return DefaultRequest(req, detail, connection);
    case hal::halop::kRefreshStart:
      m_keeper.RefreshStart(connection);
      return 0;
    case hal::halop::kRefreshEnd:
      m_keeper.RefreshEnd(connection);
      return 0;
    case hal::halop::kListRoutes: {
      cResult result = m_keeper.ListOurs(lines);
      lines.erase(lines.begin(), lines.begin() + std::min<std::size_t>(req.first, lines.size()));
      detail = result.detail;
      return result.code;
    }
    case hal::halop::kInjectFault:
      return FaultRequest(req, detail);
    default:
      detail = "unknown operation";
      return -EOPNOTSUPP;
  }
}

void cHalProxy::OnOpen(kest::cChannel* channel) {
  HALPROXY_LOG(kLevelDebug, "connection from %s", channel->PeerText().c_str());
}

void cHalProxy::OnClose(kest::cChannel* channel) {
  m_keeper.Closed(channel);
  HALPROXY_LOG(kLevelDebug, "connection from %s closed", channel->PeerText().c_str());
}

void cHalProxy::OnFrame(kest::cChannel* channel, kest::cFrame& frame) {
  if (frame.kind != kest::cFrame::kRequest) {
    HALPROXY_LOG(kLevelWarning, "ignored frame of kind %u (op %u) from %s",
                 static_cast<unsigned>(frame.kind), static_cast<unsigned>(frame.op),
                 channel->PeerText().c_str());
    return;
  }
  hal::cHalRequest req;
  std::string error;
  std::vector<std::string> lines;
  int rc;
  if (!hal::DecodeRequest(frame.op, frame.body, req, error)) {
    // A known operation with a broken body, or an operation we do not have.
    rc = hal::halop::Name(frame.op) != nullptr ? -EBADMSG : -EOPNOTSUPP;
    HALPROXY_LOG(kLevelWarning, "bad request op %u from %s: %s -> %s",
                 static_cast<unsigned>(frame.op), channel->PeerText().c_str(), error.c_str(),
                 ResultText(rc, "").c_str());
    FlushPending(channel);
    Answer(channel, frame.id, frame.op, rc, lines);
    return;
  }
  std::string detail;
  bool const routeOp =
      req.op == hal::halop::kConfigureIPGateway || req.op == hal::halop::kRemoveIPGateway;
  if (routeOp) {
    cRoute route;
    rc = RouteOf(req, route, detail);
    if (rc > 0) {
      // Route requests of one read go to the backend together, as long as
      // they ask the same (OnFramesDone).
      if (!m_pending.empty() && m_pending.front().req.op != req.op) FlushPending(channel);
      m_pendingRoutes.push_back(std::move(route));
      m_pending.push_back(cPending{frame.id, std::move(req)});
      return;
    }
  }
  // Everything else is done, and answered, in the order it was asked.
  FlushPending(channel);
  if (!routeOp) rc = Execute(req, lines, detail, channel);
  Log(req, rc, detail);
  Answer(channel, frame.id, frame.op, rc, lines);
}

void cHalProxy::OnFramesDone(kest::cChannel* channel) { FlushPending(channel); }

void cHalProxy::FlushPending(kest::cChannel* channel) {
  if (m_pending.empty()) return;
  std::uint16_t const op = m_pending.front().req.op;
  if (op == hal::halop::kConfigureIPGateway) {
    m_keeper.Configure(m_pendingRoutes, m_results, channel);
  } else {
    m_keeper.RemoveMany(m_pendingRoutes, m_results);
  }
  static std::vector<std::string> const none;
  for (std::size_t i = 0; i < m_pending.size(); ++i) {
    Log(m_pending[i].req, m_results[i].code, m_results[i].detail);
    Answer(channel, m_pending[i].id, op, m_results[i].code, none);
  }
  m_pending.clear();
  m_pendingRoutes.clear();
}

void cHalProxy::Log(hal::cHalRequest const& req, int rc, std::string const& detail) {
  // Thousands of successes a second: none of them costs a text unless it is
  // logged, or ends a run of failures.
  if (rc == 0 && m_log.Empty() && !kest::cTracepoint::Enabled(kLevelDebug)) return;
  std::string const what = hal::Describe(req);
  HALPROXY_LOG(m_log.Level(what, rc), "%s -> %s", what.c_str(), ResultText(rc, detail).c_str());
}

void cHalProxy::Answer(kest::cChannel* channel, std::uint32_t id, std::uint16_t op, int rc,
                       std::vector<std::string> const& lines) {
  kest::cSerializeBuffer body;
  if (op == hal::halop::kListRoutes && rc == 0) {
    hal::EncodeRoutePiece(lines, body);  // the client asks for the rest
  } else if (op == hal::halop::kListRoutes) {
    hal::cRouteList failed;
    failed.result = rc;
    hal::EncodeRouteList(failed, body);
  } else {
    hal::EncodeResult(rc, body);
  }
  if (m_server == nullptr || !m_server->Reply(channel, id, op, body)) {
    HALPROXY_LOG(kLevelWarning, "could not answer %s", channel->PeerText().c_str());
  }
}

}  // namespace halproxy

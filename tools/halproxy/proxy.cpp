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

bool BackendOp(std::uint16_t op, IRouteBackend::eOp& out) {
  switch (op) {
    case hal::halop::kConfigureIPGateway: out = IRouteBackend::eOp::kConfigureRoute; return true;
    case hal::halop::kRemoveIPGateway: out = IRouteBackend::eOp::kRemoveRoute; return true;
    case hal::halop::kConfigureIpDefaultGateway:
      out = IRouteBackend::eOp::kConfigureDefault;
      return true;
    case hal::halop::kRemoveIPDefaultGateway: out = IRouteBackend::eOp::kRemoveDefault; return true;
    default: return false;
  }
}

// "0", "0 (skipped: ...)", "-19 (No such device: no interface 'eth9')".
std::string ResultText(int rc, std::string const& detail) {
  std::string text = std::to_string(rc);
  std::string why = rc < 0 ? std::strerror(-rc) : "";
  if (!detail.empty()) why += (why.empty() ? "" : ": ") + detail;
  if (!why.empty()) text += " (" + why + ")";
  return text;
}

}  // namespace

cHalProxy::cHalProxy(IRouteBackend& backend, eUnavailable unavailable)
    : m_backend(backend), m_unavailable(unavailable) {}

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

int cHalProxy::RouteRequest(hal::cHalRequest const& req, std::string& detail) {
  cRoute route;
  int rc = RouteOf(req, route, detail);
  if (rc <= 0) return rc;
  rc = req.op == hal::halop::kConfigureIPGateway ? m_backend.ConfigureRoute(route)
                                                  : m_backend.RemoveRoute(route);
  if (rc != 0) detail = m_backend.LastDetail();
  return rc;
}

int cHalProxy::DefaultRequest(hal::cHalRequest const& req, std::string& detail) {
  std::uint32_t gateway = 0;
  if (!ParseAddress("gateway", req.gateway, gateway, detail)) return -EINVAL;
  if (gateway == 0) {
    detail = "a default gateway needs an address";
    return -EINVAL;
  }
  int rc = req.op == hal::halop::kConfigureIpDefaultGateway
               ? m_backend.ConfigureDefault(gateway, req.metric)
               : m_backend.RemoveDefault(gateway);
  if (rc != 0) detail = m_backend.LastDetail();
  return rc;
}

int cHalProxy::FaultRequest(hal::cHalRequest const& req, std::string& detail) {
  IRouteBackend::eOp op;
  if (!BackendOp(req.faultOp, op)) {
    detail = "no route operation " + std::to_string(req.faultOp);
    return -EINVAL;
  }
  if (req.faultCode > 0) {
    detail = "a fault is a negative errno value";
    return -EINVAL;
  }
  int rc = m_backend.InjectFault(op, req.faultCode, req.faultCount);
  if (rc == -EOPNOTSUPP) detail = "this backend has no fault injection";
  return rc;
}

int cHalProxy::Execute(hal::cHalRequest const& req, std::vector<std::string>& lines,
                       std::string& detail) {
  detail.clear();
  switch (req.op) {
    case hal::halop::kConfigureIPGateway:
    case hal::halop::kRemoveIPGateway:
      return RouteRequest(req, detail);
    case hal::halop::kConfigureIpDefaultGateway:
    case hal::halop::kRemoveIPDefaultGateway:
      return DefaultRequest(req, detail);
    case hal::halop::kListRoutes: {
      int rc = m_backend.ListRoutes(lines);
      if (rc != 0) detail = m_backend.LastDetail();
      return rc;
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
  bool const install = req.op == hal::halop::kConfigureIPGateway;
  if (install) {
    cRoute route;
    rc = RouteOf(req, route, detail);
    if (rc > 0) {
      // Installations of one read go to the backend together (OnFramesDone).
      m_pendingRoutes.push_back(std::move(route));
      m_pending.push_back(cPending{frame.id, std::move(req)});
      return;
    }
  }
  // Everything else is done, and answered, in the order it was asked.
  FlushPending(channel);
  if (!install) rc = Execute(req, lines, detail);
  HALPROXY_LOG(rc == 0 ? kLevelDebug : kLevelInfo, "%s -> %s", hal::Describe(req).c_str(),
               ResultText(rc, detail).c_str());
  Answer(channel, frame.id, frame.op, rc, lines);
}

void cHalProxy::OnFramesDone(kest::cChannel* channel) { FlushPending(channel); }

void cHalProxy::FlushPending(kest::cChannel* channel) {
  if (m_pending.empty()) return;
  m_backend.ConfigureRoutes(m_pendingRoutes, m_results, m_details);
  static std::vector<std::string> const none;
  static std::string const noDetail;
  for (std::size_t i = 0; i < m_pending.size(); ++i) {
    // A backend that answers fewer routes than it was given is broken.
    int const rc = i < m_results.size() ? m_results[i] : -EIO;
    std::string const& detail = i < m_details.size() ? m_details[i] : noDetail;
    HALPROXY_LOG(rc == 0 ? kLevelDebug : kLevelInfo, "%s -> %s",
                 hal::Describe(m_pending[i].req).c_str(), ResultText(rc, detail).c_str());
    Answer(channel, m_pending[i].id, hal::halop::kConfigureIPGateway, rc, none);
  }
  m_pending.clear();
  m_pendingRoutes.clear();
}

void cHalProxy::Answer(kest::cChannel* channel, std::uint32_t id, std::uint16_t op, int rc,
                       std::vector<std::string> const& lines) {
  kest::cSerializeBuffer body;
  if (op == hal::halop::kListRoutes && rc == 0) {
    // Past one frame the table cannot travel; say so rather than cut it.
    if (!hal::EncodeRouteList(rc, lines, body) || body.Size() + kest::kFrameHeader > kest::kMaxFrame) {
      HALPROXY_LOG(kLevelWarning, "ListRoutes: %zu routes do not fit in one answer", lines.size());
      body.Clear();
      hal::EncodeRouteList(-EMSGSIZE, {}, body);
    }
  } else if (op == hal::halop::kListRoutes) {
    hal::EncodeRouteList(rc, {}, body);
  } else {
    hal::EncodeResult(rc, body);
  }
  if (m_server == nullptr || !m_server->Reply(channel, id, op, body)) {
    HALPROXY_LOG(kLevelWarning, "could not answer %s", channel->PeerText().c_str());
  }
}

}  // namespace halproxy

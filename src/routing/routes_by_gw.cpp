// Configured routes follow the gateways announced under the WAN tags; the
// refresh requests everything again.
#include "core/rm_trace.h"
#include "core/route_mgr_service.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "routing/configured_route.h"

namespace {
char const* BoolText(bool b) { return b ? "true" : "false"; }
}  // namespace

void cRouteMgrService::SetRoutesByGw(bool _bNewVal, bool _bDelRoutes) {
  if (m_RoutingCollection == nullptr) {
    return;
  }
  cWanGateways gw;
  gw.wired.avail = GetGatewayByTag(gwtag::kWired, gw.wired.entry);
  gw.wireless.avail = GetGatewayByTag(gwtag::kWireless, gw.wireless.entry);
  gw.vpn.avail = GetGatewayByTag(gwtag::kVpn, gw.vpn.entry);

  auto const& walked =
      _bNewVal ? m_RoutingCollection->RoutesReceived() : m_RoutingCollection->RoutesInForce();
  auto const& other =
      _bNewVal ? m_RoutingCollection->RoutesInForce() : m_RoutingCollection->RoutesReceived();
  if (!m_refreshing) {
    RM_TRACEF(
        "SetRoutesByGw (_bNewVal:%s, _bDelRoutes:%s, bWiredAvail:%s, bWirelessAvail:%s, "
        "bVPNAvail:%s)",
        BoolText(_bNewVal), BoolText(_bDelRoutes), BoolText(gw.wired.avail),
        BoolText(gw.wireless.avail), BoolText(gw.vpn.avail));
    RM_TRACEF("(try) %s %d routes (OtherMapSize:%d)", _bDelRoutes ? "deleting" : "setting",
              static_cast<int>(walked.size()), static_cast<int>(other.size()));
  }

  kest::s_socket_addr const noSource("0.0.0.0", 0);
  // The refresh batches all of its requests itself.
  bool const pass = !m_refreshing;
  if (pass) {
    BeginHalPass();
  }
  for (auto const& [key, route] : walked) {
    std::optional<cConfiguredRequest> const req = ConfiguredRequest(gw, route);
    if (!req) {
      continue;
    }
    if (_bDelRoutes) {
      HalDelRoute(route.m_network, route.m_netmask, req->gateway, req->gwAvail);
    } else {
      HalSetRoute(route.m_network, route.m_netmask, req->gateway, noSource, req->ifname,
                  req->metric, req->gwAvail);
    }
  }
  if (pass) {
    EndHalPass();
  }
}

void cRouteMgrService::OnRefresh(kest::cMsg&) {
  if (m_RoutingCollection == nullptr) {
    return;
  }
  m_refreshing = true;
  // Nothing of the refresh looks at the HAL's answers, so its requests go out
  // without waiting for them one by one; the batch ends, with every answer
  // in, before any other message is handled.
  // It is also everything the service wants, so the proxy may remove what
  // nobody asks for any more.
  m_halClient.BeginRefresh();
  SetDefaultGateways();
  SetRoutesByGw(false, false);
  SetCustomRoutes();
  m_halClient.EndRefresh();
  m_refreshing = false;
}

// Configured routes follow the gateways announced under the WAN tags; the
// refresh requests everything again.
#include "core/rm_trace.h"
#include "core/route_mgr_service.h"
#include "datastore/records/db_wan_routing_collection.h"

namespace {
char const* BoolText(bool b) { return b ? "true" : "false"; }
}  // namespace

void cRouteMgrService::SetRoutesByGw(bool _bNewVal, bool _bDelRoutes) {
  if (m_RoutingCollection == nullptr) {
    return;
  }
  cGWEntry wired, wireless, vpn;
  bool bWiredAvail = GetGatewayByTag(gwtag::kWired, wired);
  bool bWirelessAvail = GetGatewayByTag(gwtag::kWireless, wireless);
  bool bVPNAvail = GetGatewayByTag(gwtag::kVpn, vpn);

  auto const& walked =
      _bNewVal ? m_RoutingCollection->RoutesReceived() : m_RoutingCollection->RoutesInForce();
  auto const& other =
      _bNewVal ? m_RoutingCollection->RoutesInForce() : m_RoutingCollection->RoutesReceived();
  if (!m_refreshing) {
    RM_TRACEF("SetRoutesByGw (_bNewVal:%s, _bDelRoutes:%s, bWiredAvail:%s, bWirelessAvail:%s, "
              "bVPNAvail:%s)",
              BoolText(_bNewVal), BoolText(_bDelRoutes), BoolText(bWiredAvail),
              BoolText(bWirelessAvail), BoolText(bVPNAvail));
    RM_TRACEF("(try) %s %d routes (OtherMapSize:%d)", _bDelRoutes ? "deleting" : "setting",
              static_cast<int>(walked.size()), static_cast<int>(other.size()));
  }

  kest::s_socket_addr const noSource("0.0.0.0", 0);
  std::string const noInterface;
  for (auto const& [key, route] : walked) {
    kest::s_socket_addr const* gateway = nullptr;
    std::string const* ifname = &noInterface;
    std::uint32_t metric = 0;
    bool avail = true;
    switch (route.m_gatewaySelector.Get()) {
      case dataIO::kGwSelectorWired:
        gateway = &wired.m_gatewayIP, ifname = &wired.m_gatewayIF, avail = bWiredAvail;
        break;
      case dataIO::kGwSelectorWireless:
        gateway = &wireless.m_gatewayIP, ifname = &wireless.m_gatewayIF, avail = bWirelessAvail;
        break;
      case dataIO::kGwSelectorVpn:
        // Only VPN routes take the gateway's priority: several VPNs may
        // offer the same prefix and the metric orders them.
        gateway = &vpn.m_gatewayIP, ifname = &vpn.m_gatewayIF, avail = bVPNAvail;
        metric = vpn.m_gatewayPrio;
        break;
      case dataIO::kGwSelectorOwn:
        gateway = &route.m_gateway;
        break;
      default:
        continue;
    }
    if (_bDelRoutes) {
      HalDelRoute(route.m_network, route.m_netmask, *gateway, avail);
    } else {
      HalSetRoute(route.m_network, route.m_netmask, *gateway, noSource, *ifname, metric, avail);
    }
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
  m_halClient.BeginBatch();
  SetDefaultGateways();
  SetRoutesByGw(false, false);
  SetCustomRoutes();
  m_halClient.EndBatch();
  m_refreshing = false;
}

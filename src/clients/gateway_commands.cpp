// Gateways announced by route clients. Every change is bracketed by a delete
// pass over the configured routes (with the old gateways) and a set pass
// (with the new ones), so no configured route keeps a stale next hop.
#include "core/rm_trace.h"
#include "core/route_mgr_service.h"

routeIO::routeResult cRouteMgrService::SetGateway(kest::s_socket_addr const& address,
                                                  std::string const& tag, std::string const& ifname,
                                                  std::uint32_t type, std::uint32_t priority) {
  RM_TRACEF("Recieved SetGateway (IP:%s, Tag:%s, IF:%s, Type:%d, Prio:%d)",
            address.GetIPString().c_str(), tag.c_str(), ifname.c_str(), static_cast<int>(type),
            static_cast<int>(priority));
  if (m_ConfigReceived) {
    SetRoutesByGw(false, true);
  }
  cGWEntry& entry = m_Gateways[tag];
  entry.m_gatewayIP = address;
  entry.m_gatewayTag = tag;
  entry.m_gatewayIF = ifname;
  entry.m_gatewayType = type;
  entry.m_gatewayPrio = priority;
  if (type == DEFAULT) {
    m_halClient.ConfigureIpDefaultGateway(address.GetIPString(), priority);
  }
  if (m_ConfigReceived) {
    SetRoutesByGw(false, false);
  }
  return routeIO::routeResult{true, 0};
}

routeIO::routeResult cRouteMgrService::DelGateway(std::string const& tag) {
  RM_TRACEF("Recieved DelGateway (Tag:%s)", tag.c_str());
  // Unlike the set pass this runs as soon as a collection exists: routes a
  // previous configuration applied through this gateway must not outlive it.
  if (m_RoutingCollection != nullptr) {
    SetRoutesByGw(false, true);
  }
  auto it = m_Gateways.find(tag);
  if (it != m_Gateways.end()) {
    if (it->second.m_gatewayType == DEFAULT) {
      m_halClient.RemoveIPDefaultGateway(it->second.m_gatewayIP.GetIPString());
    }
    m_Gateways.erase(it);
  }
  if (m_ConfigReceived) {
    SetRoutesByGw(false, false);
  }
  return routeIO::routeResult{true, 0};
}

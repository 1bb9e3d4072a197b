// Turning table entries into HAL requests.
#include "core/rm_trace.h"
#include "core/route_mgr_service.h"

namespace {
kest::s_socket_addr Masked(kest::s_socket_addr const& network, kest::s_socket_addr const& netmask) {
  return kest::s_socket_addr(network.GetIP() & netmask.GetIP(), 0);
}

void TraceFailure(bool set, int rc) {
  if (set) {
    RM_TRACEF("Error Setting Route :%d", rc);
  } else {
    RM_TRACEF("Error Deleting Route :%d", rc);
  }
}
}  // namespace

bool cRouteMgrService::GetGatewayByTag(std::string const& tag, cGWEntry& gateway) {
  auto it = m_Gateways.find(tag);
  if (it != m_Gateways.end()) {
    gateway = it->second;
    return true;
  }
  // Tag and type are left as the caller had them: only what a route request
  // uses is reset.
  gateway.m_gatewayIF.clear();
  gateway.m_gatewayIP.InitFromString("0.0.0.0", 0);
  gateway.m_gatewayPrio = 0;
  return false;
}

int cRouteMgrService::HalSetRoute(kest::s_socket_addr const& network,
                                  kest::s_socket_addr const& netmask,
                                  kest::s_socket_addr const& gateway,
                                  kest::s_socket_addr const& source, std::string const& ifname,
                                  std::uint32_t priority, bool _bGwAvail) {
  std::string net = Masked(network, netmask).GetIPString();
  std::string mask = netmask.GetIPString();
  std::string gw = gateway.GetIPString();
  std::string src = source.GetIPString();
  unsigned int metric = priority;
  int rc = m_halClient.ConfigureIPGateway(net, mask, gw, src, ifname, metric, _bGwAvail);
  if (m_halPass) {
    m_halPassSets.push_back(true);
    return rc;
  }
  // The refresh repeats every request each period; a failure there would
  // flood the trace with the same line.
  if (rc != 0 && !m_refreshing) {
    TraceFailure(true, rc);
  }
  return rc;
}

int cRouteMgrService::HalDelRoute(kest::s_socket_addr const& network,
                                  kest::s_socket_addr const& netmask,
                                  kest::s_socket_addr const& gateway, bool _bGwAvail) {
  std::string net = Masked(network, netmask).GetIPString();
  std::string mask = netmask.GetIPString();
  std::string gw = gateway.GetIPString();
  int rc = m_halClient.RemoveIPGateway(net, mask, gw, _bGwAvail);
  if (m_halPass) {
    m_halPassSets.push_back(false);
    return rc;
  }
  if (rc != 0) {
    TraceFailure(false, rc);
  }
  return rc;
}

void cRouteMgrService::BeginHalPass() {
  m_halPass = true;
  m_halPassSets.clear();
  m_halClient.BeginBatch();
}

void cRouteMgrService::EndHalPass() {
  std::vector<int> results;
  m_halClient.EndBatch(&results);
  m_halPass = false;
  // Only route requests are made in a pass, one result each.
  for (std::size_t i = 0; i < results.size() && i < m_halPassSets.size(); ++i) {
    if (results[i] != 0) {
      TraceFailure(m_halPassSets[i], results[i]);
    }
  }
  m_halPassSets.clear();
}

void cRouteMgrService::SetDefaultGateways() {
  for (auto const& [tag, gw] : m_Gateways) {
    if (gw.m_gatewayType == DEFAULT) {
      m_halClient.ConfigureIpDefaultGateway(gw.m_gatewayIP.GetIPString(), gw.m_gatewayPrio);
    }
  }
}

void cRouteMgrService::SetCustomRoutes() {
  for (auto const& [tag, route] : m_Routes) {
    HalSetRoute(route.m_network, route.m_netmask, route.m_gatewayIP, route.m_preferredSourceIP,
                route.m_gatewayIF, route.m_routePrio, true);
  }
}

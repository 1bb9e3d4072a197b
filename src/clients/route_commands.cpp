// Custom routes: set and deleted by route clients under tags of their own.
#include <utility>

#include "core/rm_trace.h"
#include "core/route_mgr_service.h"

namespace {
// Answer to DelRoute of a tag that no client has set.
constexpr std::int32_t kUnknownTag = -100;

routeIO::routeResult Result(int rc) { return routeIO::routeResult{rc == 0, rc}; }
}  // namespace

routeIO::routeResult cRouteMgrService::SetRoute(
    kest::cChannel* client, kest::s_socket_addr const& network, kest::s_socket_addr const& netmask,
    kest::s_socket_addr const& gateway, kest::s_socket_addr const& source,
    std::string const& ifname, std::string const& tag, std::uint32_t priority) {
  RM_TRACEF("Recieved SetRoute (Net:%s/%s, GW: %s, Tag:%s, IF:%s, SRC:%s)",
            network.GetIPString().c_str(), netmask.GetIPString().c_str(),
            gateway.GetIPString().c_str(), tag.c_str(), ifname.c_str(),
            source.GetIPString().c_str());
  cRouteEntry entry;
  entry.m_network = network;
  entry.m_netmask = netmask;
  entry.m_gatewayIP = gateway;
  entry.m_preferredSourceIP = source;
  entry.m_gatewayIF = ifname;
  entry.m_routeTag = tag;
  entry.m_routePrio = priority;

  auto old = m_Routes.find(tag);
  if (old != m_Routes.end()) {
    // The old route may differ in prefix or gateway: remove it as it was
    // installed, or the kernel keeps both.
    int rc =
        HalDelRoute(old->second.m_network, old->second.m_netmask, old->second.m_gatewayIP, true);
    if (rc != 0) {
      RM_TRACEF("Error Deleting existing Route after SetRoute Cmd (rc:%d)", rc);
    }
    m_Routes.erase(old);
  }
  m_Routes.emplace(tag, std::move(entry));
  m_RoutesByClient[client].insert(tag);
  return Result(HalSetRoute(network, netmask, gateway, source, ifname, priority, true));
}

routeIO::routeResult cRouteMgrService::DelRoute(kest::cChannel* client, std::string const& tag) {
  RM_TRACEF("Recieved DelRoute (Tag:%s)", tag.c_str());
  auto it = m_Routes.find(tag);
  bool found = it != m_Routes.end();
  cRouteEntry entry;
  if (found) {
    entry = it->second;
    m_Routes.erase(it);
  }
  auto owner = m_RoutesByClient.find(client);
  if (owner != m_RoutesByClient.end()) {
    owner->second.erase(tag);
  }
  if (!found) {
    return routeIO::routeResult{false, kUnknownTag};
  }
  return Result(HalDelRoute(entry.m_network, entry.m_netmask, entry.m_gatewayIP, true));
}

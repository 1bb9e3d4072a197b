// Custom routes live as long as the connection of the client that set them.
#include <utility>

#include "core/rm_trace.h"
#include "core/route_mgr_service.h"
#include "kest/channel.h"

void cRouteMgrService::OnClientConnected(routeIO::cRouteServer*, kest::cChannel* client) {
  RM_TRACE("Route Client Connected:" + client->PeerInfo().ToString(""));
}

void cRouteMgrService::OnClientClosed(routeIO::cRouteServer*, kest::cChannel* client) {
  RM_TRACE("Route Client Closed:" + client->PeerInfo().ToString(""));
  auto owner = m_RoutesByClient.find(client);
  if (owner == m_RoutesByClient.end()) {
    return;
  }
  // Taken out, not copied (a copy of 100,000 tags costs 8 MB at the peak):
  // nothing reads the client's entry during the walk, and it is erased at
  // the end.
  std::set<std::string> const tags = std::move(owner->second);
  RM_TRACE("found custom routes by disconnected client - deleting");
  int deleted = 0;
  BeginHalPass();
  for (std::string const& tag : tags) {
    auto it = m_Routes.find(tag);
    if (it == m_Routes.end()) {
      continue;  // another client deleted it already
    }
    HalDelRoute(it->second.m_network, it->second.m_netmask, it->second.m_gatewayIP, true);
    m_Routes.erase(it);
    ++deleted;
  }
  EndHalPass();
  RM_TRACEF("%d of %d routes deleted", deleted, static_cast<int>(tags.size()));
  m_RoutesByClient.erase(client);
}

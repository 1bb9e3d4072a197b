// Following the data manager: the network status tells which WAN setup is
// in force, that setup's routing collection lists the configured routes.
#include "core/rm_trace.h"
#include "core/route_mgr_service.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"

void cRouteMgrService::OnConnect(kest::cServiceClient* client) {
  m_watcher.OnConnect(client);
  m_networkStatus = CreateNetworkStatusCollection(m_dataClient);
  if (m_networkStatus == nullptr) {
    RestartDataClient();
  }
}

void cRouteMgrService::OnDisconnect(kest::cServiceClient*) { RestartDataClient(); }

void cRouteMgrService::OnRequestFailed(dataIO::cDataClient*, std::string const&) {}

void cRouteMgrService::RestartDataClient() {
  m_dataClient.Stop();
  m_dataClient.DeregisterCollection(m_networkStatus);
  m_dataClient.DeregisterCollection(m_RoutingCollection);
  m_ConfigReceived = false;
  m_networkStatus = nullptr;
  m_RoutingCollection = nullptr;
  m_StatusReceived = false;
  // Routes applied from the configuration stay in the kernel: dropping them
  // here would cut traffic for the length of a data manager restart. The
  // next configuration does not replace them: its first synchronisation has
  // no routes in force to delete, so a route that it no longer lists stays.
  m_dataClient.Start();
}

void cRouteMgrService::OnSync(dataIO::cDataClient*, dataIO::cDBCollection* collection) {
  RM_TRACEF("Received OnSync (WanStatus:%s, RouteConfig:%s)",
            collection == m_networkStatus ? "true" : "false",
            collection == m_RoutingCollection ? "true" : "false");

  if (collection != nullptr && collection == m_networkStatus) {
    std::string const received = m_networkStatus->ReceivedWanSetupName();
    if (m_StatusReceived) {
      std::string const inForce = m_networkStatus->InForceWanSetupName();
      if (received != inForce) {
        RM_TRACE("Wan Setup Changed - Deleting Routes etc");
        m_ConfigReceived = false;
        // The previous setup's routes are ours to remove: nobody else knows
        // they came from that configuration, and once its collection is gone
        // nothing could name them any more. A delete pass over its routes in
        // force, before it is deregistered, takes them out of the kernel;
        // the new setup's routes follow at its first synchronisation.
        SetRoutesByGw(false, true);
        m_dataClient.DeregisterCollection(m_RoutingCollection);
        m_RoutingCollection = CreateRoutingCollection(m_dataClient, received);
        if (m_RoutingCollection == nullptr) {
          RestartDataClient();
          return;
        }
      }
    } else if (!received.empty()) {
      RM_TRACE("Received Initial WanSetup - Registering RoutingCollection");
      m_StatusReceived = true;
      m_dataClient.DeregisterCollection(m_RoutingCollection);
      m_RoutingCollection = CreateRoutingCollection(m_dataClient, received);
      if (m_RoutingCollection == nullptr) {
        RestartDataClient();
      }
    }
    return;
  }

  if (collection == m_RoutingCollection && collection != nullptr) {
    if (m_ConfigReceived) {
      if (!m_RoutingCollection->HasChanged()) {
        return;
      }
      RM_TRACE("Routing Collection Changed - Deleting/Setting Routes");
    } else {
      RM_TRACE("Received Routing CFG - Setting Routes ...");
      m_ConfigReceived = true;
    }
    SetRoutesByGw(false, true);
    SetRoutesByGw(true, false);
  }
}

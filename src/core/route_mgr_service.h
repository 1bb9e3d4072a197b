// The route manager's one object: the managed service the framework runs,
// the callback target of the route server, the data client and the HAL
// client, and the owner of all routing state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "dataIO/data_client.h"
#include "hal/hal_client.h"
#include "kest/service.h"
#include "kest/service_client.h"
#include "kest/timer.h"
#include "routeIO/route_server.h"
#include "routing/route_tables.h"

namespace dataIO {
class cDBNetworkStatusCollection;
class cDBWanRoutingCollection;
}  // namespace dataIO

// Where a state dump request came from.
enum DumpSource { SIG_REQ = 1, SRV_REQ = 2 };

class cRouteMgrService : public kest::cScmService,
                         public routeIO::IRouteServer,
                         public dataIO::IDataClient,
                         public hal::IHalClient {
 public:
  cRouteMgrService(std::string dataMgrSap, std::string halProxSap);
  ~cRouteMgrService() override = default;

  using kest::cScmService::ToString;
  void InitMessageMap() override;
  void Run() override;
  bool OnScmConnected() override;
  bool OnAliveCheck() override;
  void OnSystemStatus(std::string const& status) override;
  void OnScmNotification() override;

  // dataIO::IDataClient
  void OnConnect(kest::cServiceClient* client) override;
  void OnDisconnect(kest::cServiceClient* client) override;
  void OnSync(dataIO::cDataClient* client, dataIO::cDBCollection* collection) override;
  void OnRequestFailed(dataIO::cDataClient* client, std::string const& reason) override;
  bool OnDumpRequest(dataIO::cDataClient* client, kest::s_string const& directory) override;

  // routeIO::IRouteServer
  void OnClientConnected(routeIO::cRouteServer* server, kest::cChannel* client) override;
  void OnClientClosed(routeIO::cRouteServer* server, kest::cChannel* client) override;
  routeIO::routeResult SetGateway(kest::s_socket_addr const& address, std::string const& tag,
                                  std::string const& ifname, std::uint32_t type,
                                  std::uint32_t priority) override;
  routeIO::routeResult SetRoute(kest::cChannel* client, kest::s_socket_addr const& network,
                                kest::s_socket_addr const& netmask,
                                kest::s_socket_addr const& gateway,
                                kest::s_socket_addr const& source, std::string const& ifname,
                                std::string const& tag, std::uint32_t priority) override;
  routeIO::routeResult DelGateway(std::string const& tag) override;
  routeIO::routeResult DelRoute(kest::cChannel* client, std::string const& tag) override;

  // Message handlers.
  void OnHalConnect(kest::cMsg& msg);
  void OnAllUp(kest::cMsg& msg);
  void OnRefresh(kest::cMsg& msg);

  // Route programming through the HAL.
  bool GetGatewayByTag(std::string const& tag, cGWEntry& gateway);
  int HalSetRoute(kest::s_socket_addr const& network, kest::s_socket_addr const& netmask,
                  kest::s_socket_addr const& gateway, kest::s_socket_addr const& source,
                  std::string const& ifname, std::uint32_t priority, bool _bGwAvail);
  int HalDelRoute(kest::s_socket_addr const& network, kest::s_socket_addr const& netmask,
                  kest::s_socket_addr const& gateway, bool _bGwAvail);
  void SetDefaultGateways();
  void SetCustomRoutes();
  void SetRoutesByGw(bool _bNewVal, bool _bDelRoutes);
  // A pass whose HAL answers are only traced: its requests go out without
  // waiting for each answer, and EndHalPass, with every answer in, writes the
  // failure traces the calls one by one would have written, in their order.
  void BeginHalPass();
  void EndHalPass();

  // Data client lifecycle.
  void RestartDataClient();

  // State dump.
  std::string ToString(char const* prefix) const;

  // Read access for diagnostics and tests.
  GatewayTable const& Gateways() const { return m_Gateways; }
  RouteTable const& Routes() const { return m_Routes; }
  RoutesByClientTable const& RoutesByClient() const { return m_RoutesByClient; }
  dataIO::cDBNetworkStatusCollection* NetworkStatus() const { return m_networkStatus; }
  dataIO::cDBWanRoutingCollection* RoutingCollection() const { return m_RoutingCollection; }
  bool StatusReceived() const { return m_StatusReceived; }
  bool ConfigReceived() const { return m_ConfigReceived; }
  hal::cHalClient& HalClient() { return m_halClient; }
  dataIO::cDataClient& DataClient() { return m_dataClient; }
  routeIO::cRouteServer& RouteServer() { return m_routeServer; }
  kest::cTimer& RefreshTimer() { return m_refreshTimer; }

 private:
  GatewayTable m_Gateways;
  RouteTable m_Routes;
  RoutesByClientTable m_RoutesByClient;
  kest::cServiceClientWatcher m_watcher;
  dataIO::cDataClient m_dataClient;
  hal::cHalClient m_halClient;
  routeIO::cRouteServer m_routeServer;
  dataIO::cDBNetworkStatusCollection* m_networkStatus;
  dataIO::cDBWanRoutingCollection* m_RoutingCollection;
  bool m_refreshing;
  bool m_halPass = false;
  std::vector<bool> m_halPassSets;  // per request of the pass: installation, else removal
  bool m_StatusReceived;
  bool m_ConfigReceived;
  std::string m_dataMgrSap;
  std::string m_halProxSap;
  kest::cTimer m_refreshTimer;
};

// Collections are created here and handed to the data client; a refused
// registration destroys the collection and gives null.
dataIO::cDBNetworkStatusCollection* CreateNetworkStatusCollection(dataIO::cDataClient& client);
dataIO::cDBWanRoutingCollection* CreateRoutingCollection(dataIO::cDataClient& client,
                                                         std::string const& setupName);

// State dump into "<directory>/routemgr.dmp"; failures are silent.
void WriteDump(cRouteMgrService const* service, int source, std::string const& directory);

// A service driven directly, with the HAL and the data client redirected to
// recording fakes and time on a manual clock.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/route_mgr_service.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "kest/clock.h"
#include "kest/loop.h"
#include "kest/trace.h"
#include "recording_fakes.h"

struct ConfiguredRoute {
  std::string key;
  std::string network;
  std::string netmask;
  unsigned selector;
  std::string gateway = "0.0.0.0";
};

class ServiceTest : public ::testing::Test {
 protected:
  ServiceTest();
  ~ServiceTest() override;

  static kest::s_socket_addr Addr(char const* dotted) { return kest::s_socket_addr(dotted, 0); }
  // A route client's connection; the peer is 10.0.0.<n>:4000+n.
  kest::cChannel* Client(int n);
  std::vector<std::string> Traces();  // the route manager's traces so far, cleared

  routeIO::routeResult SetRoute(int client, char const* net, char const* mask, char const* gw,
                                std::string const& tag, char const* src = "0.0.0.0",
                                char const* dev = "eth1", std::uint32_t prio = 0);
  routeIO::routeResult SetGw(std::string const& tag, char const* ip, std::uint32_t type,
                             std::uint32_t prio = 0, char const* dev = "eth0");

  // The data manager's side: connection, a WAN status naming the setup in
  // force, and a routing synchronisation delivering the full set of entries.
  void ConnectData();
  void SyncStatus(std::string const& setupName);
  void SyncRouting(std::vector<ConfiguredRoute> const& routes);
  // Connected, setup "dsl" announced, its routes synchronised once; logs cleared.
  void ReachConfigApplied(std::vector<ConfiguredRoute> const& routes);
  void Report(dataIO::cDBCollection* collection);

  std::map<int, std::unique_ptr<kest::cChannel>> clients;
  kest::cManualClock clock;
  FakeHal hal;
  FakeData data;
  kest::cTraceCapture capture;
  std::unique_ptr<cRouteMgrService> svc;
};

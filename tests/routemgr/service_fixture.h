// A service driven directly, with the HAL and the data client redirected to
// recording fakes and time on a manual clock. The fakes record every call as
// one readable line, so a test states a scenario and compares the log.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "core/route_mgr_service.h"
#include "dataIO/data_client.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "hal/hal_client.h"
#include "kest/channel.h"
#include "kest/clock.h"
#include "kest/format.h"
#include "kest/loop.h"
#include "kest/properties.h"
#include "kest/trace.h"

using Lines = std::vector<std::string>;

class FakeHal : public hal::IHalApi {
 public:
  int ConfigureIPGateway(std::string const& network, std::string const& netmask,
                         std::string const& gateway, std::string const& source,
                         std::string const& ifname, unsigned int const& metric,
                         bool const& gwAvailable) override {
    return Call("ConfigureIPGateway", network, netmask, gateway, source, "'" + ifname + "'", metric,
                gwAvailable);
  }
  int RemoveIPGateway(std::string const& network, std::string const& netmask,
                      std::string const& gateway, bool const& gwAvailable) override {
    return Call("RemoveIPGateway", network, netmask, gateway, gwAvailable);
  }
  int ConfigureIpDefaultGateway(std::string const& gateway, unsigned int metric) override {
    return Call("ConfigureIpDefaultGateway", gateway, metric);
  }
  int RemoveIPDefaultGateway(std::string const& gateway) override {
    return Call("RemoveIPDefaultGateway", gateway);
  }

  Lines Take() { return std::exchange(log, {}); }  // the log so far, cleared
  Lines log;
  // The result of a call: answer[its whole log line], else answer[its
  // operation] ("ConfigureIPGateway", ...), else 0.
  std::map<std::string, int> answer;

 private:
  template <typename... Args>
  int Call(char const* op, Args const&... args) {
    std::ostringstream line;
    line << op;
    ((line << ' ' << args), ...);
    log.push_back(line.str());
    auto it = answer.find(log.back());
    return it != answer.end() ? it->second : answer[op];
  }
};

class FakeData : public dataIO::IDataApi {
 public:
  ~FakeData() {
    for (auto* c : registered) delete c;
  }
  bool RegisterCollection(dataIO::cDBCollection* collection) override {
    log.push_back("Register " + collection->GetDir() + (refuse ? " refused" : ""));
    if (!refuse) registered.push_back(collection);
    return !refuse;
  }
  bool DeregisterCollection(dataIO::cDBCollection* collection) override {
    log.push_back("Deregister " + (collection ? collection->GetDir() : std::string("null")));
    registered.erase(std::remove(registered.begin(), registered.end(), collection),
                     registered.end());
    delete collection;
    return true;
  }
  bool Start() override { return log.push_back("Start"), true; }
  void Stop() override { log.push_back("Stop"); }

  Lines Take() { return std::exchange(log, {}); }
  Lines log;
  bool refuse = false;  // answer the next registrations with false
  std::vector<dataIO::cDBCollection*> registered;
};

struct ConfiguredRoute {
  char const *key, *network, *netmask;
  unsigned selector;
  char const* gateway = "0.0.0.0";
};

class ServiceTest : public ::testing::Test {
 protected:
  ServiceTest() {
    kest::ResetLoop();
    kest::Loop().SetClock(&clock);
    // The route server must never take the real port in a test.
    kest::kestProperties().Set("system.routeMgrSap", "127.0.0.1:0");
    svc = std::make_unique<cRouteMgrService>("127.0.0.1:1", "127.0.0.1:2");
    svc->HalClient().Redirect(&hal);
    svc->DataClient().Redirect(&data);
  }
  ~ServiceTest() override {
    svc.reset();
    clients.clear();
    kest::ResetLoop();
  }

  static kest::s_socket_addr Addr(char const* dotted) { return kest::s_socket_addr(dotted, 0); }
  // A route client's connection; the peer is 10.0.0.<n>:4000+n.
  kest::cChannel* Client(int n) {
    auto& slot = clients[n];
    kest::s_socket_addr const peer(kest::FormatString("10.0.0.%d", n), 4000 + n);
    if (!slot) slot = std::make_unique<kest::cChannel>(-1, peer, peer.ToString(""), nullptr);
    return slot.get();
  }
  // The route manager's own traces so far (the framework traces too), cleared.
  Lines Traces() {
    Lines messages;
    for (auto const& rec : capture.Records()) {
      if (rec.module != "RouteMgr") continue;
      EXPECT_EQ(rec.level + " " + rec.file, "005 routemgr");
      messages.push_back(rec.message);
    }
    capture.Clear();
    return messages;
  }

  routeIO::routeResult SetRoute(int client, char const* net, char const* mask, char const* gw,
                                std::string const& tag, char const* src = "0.0.0.0",
                                char const* dev = "eth1", std::uint32_t prio = 0) {
    return svc->SetRoute(Client(client), Addr(net), Addr(mask), Addr(gw), Addr(src), dev, tag,
                         prio);
  }
  routeIO::routeResult SetGw(std::string const& tag, char const* ip, std::uint32_t type,
                             std::uint32_t prio = 0, char const* dev = "eth0") {
    return svc->SetGateway(Addr(ip), tag, dev, type, prio);
  }

  // The data manager's side: connection, a WAN status naming the setup in
  // force, and a routing synchronisation delivering the full set of entries.
  void ConnectData() { svc->OnConnect(&svc->DataClient()); }
  void SyncStatus(std::string const& setupName) {
    dataIO::cDBStatusWan wan;
    wan.m_wanSetupName.Set(setupName);
    ASSERT_NE(svc->NetworkStatus(), nullptr);
    svc->NetworkStatus()->BeginSync();
    ASSERT_TRUE(svc->NetworkStatus()->ReceiveRecord(wan));
    Report(svc->NetworkStatus());
  }
  void SyncRouting(std::vector<ConfiguredRoute> const& routes) {
    auto* routing = svc->RoutingCollection();
    ASSERT_NE(routing, nullptr);
    routing->BeginSync();
    for (auto const& [key, route] : routing->RoutesInForce()) routing->RemoveItem(key);
    for (auto const& r : routes)
      ASSERT_TRUE(routing->ReceiveRecord(
          dataIO::cDBConfigWanRoute(r.key, routing->GetDir(), Addr(r.network), Addr(r.netmask),
                                    Addr(r.gateway), static_cast<std::uint8_t>(r.selector), "")));
    Report(routing);
  }
  // What the data client does for one synchronisation.
  void Report(dataIO::cDBCollection* collection) {
    collection->SetSynced(true);
    svc->OnSync(nullptr, collection);
    auto& live = data.registered;
    if (std::find(live.begin(), live.end(), collection) != live.end()) collection->EndSync();
  }
  // Connected, setup "dsl" announced, its routes synchronised once; logs cleared.
  void ReachConfigApplied(std::vector<ConfiguredRoute> const& routes) {
    ConnectData();
    SyncStatus("dsl");
    SyncRouting(routes);
    hal.Take();
    data.Take();
    Traces();
  }

  std::map<int, std::unique_ptr<kest::cChannel>> clients;
  kest::cManualClock clock;
  FakeHal hal;
  FakeData data;
  kest::cTraceCapture capture;
  std::unique_ptr<cRouteMgrService> svc;
};

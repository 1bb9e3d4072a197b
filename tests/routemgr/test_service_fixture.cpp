#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "kest/channel.h"
#include "kest/properties.h"
#include "service_fixture.h"

ServiceTest::ServiceTest() {
  kest::ResetLoop();
  kest::Loop().SetClock(&clock);
  // The route server must never take the real port in a test.
  kest::kestProperties().Set("system.routeMgrSap", "127.0.0.1:0");
  svc = std::make_unique<cRouteMgrService>("127.0.0.1:1", "127.0.0.1:2");
  svc->HalClient().Redirect(&hal);
  svc->DataClient().Redirect(&data);
}

ServiceTest::~ServiceTest() {
  svc.reset();
  clients.clear();
  kest::ResetLoop();
}

kest::cChannel* ServiceTest::Client(int n) {
  auto& slot = clients[n];
  if (!slot) {
    int fds[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    close(fds[1]);
    kest::s_socket_addr peer(kest::FormatString("10.0.0.%d", n),
                             static_cast<std::uint16_t>(4000 + n));
    slot = std::make_unique<kest::cChannel>(fds[0], peer, peer.ToString(""), nullptr);
  }
  return slot.get();
}

std::vector<std::string> ServiceTest::Traces() {
  std::vector<std::string> messages;
  for (auto const& rec : capture.Records()) {
    // The framework traces too; only the route manager's own lines count here.
    if (rec.module == "RouteMgr") {
      EXPECT_EQ(rec.level, "005");
      EXPECT_EQ(rec.file, "routemgr");
      messages.push_back(rec.message);
    }
  }
  capture.Clear();
  return messages;
}

routeIO::routeResult ServiceTest::SetRoute(int client, char const* net, char const* mask,
                                           char const* gw, std::string const& tag, char const* src,
                                           char const* dev, std::uint32_t prio) {
  return svc->SetRoute(Client(client), Addr(net), Addr(mask), Addr(gw), Addr(src), dev, tag, prio);
}

routeIO::routeResult ServiceTest::SetGw(std::string const& tag, char const* ip, std::uint32_t type,
                                        std::uint32_t prio, char const* dev) {
  return svc->SetGateway(Addr(ip), tag, dev, type, prio);
}

void ServiceTest::ConnectData() { svc->OnConnect(&svc->DataClient()); }

// What the data client does for one synchronisation.
void ServiceTest::Report(dataIO::cDBCollection* collection) {
  collection->SetSynced(true);
  svc->OnSync(nullptr, collection);
  auto& live = data.registered;
  if (std::find(live.begin(), live.end(), collection) != live.end()) collection->EndSync();
}

void ServiceTest::SyncStatus(std::string const& setupName) {
  auto* status = svc->NetworkStatus();
  ASSERT_NE(status, nullptr);
  dataIO::cDBStatusWan wan;
  wan.m_wanSetupName.Set(setupName);
  kest::cSerializeBuffer bytes;
  wan.Serialize(bytes);
  status->BeginSync();
  ASSERT_TRUE(status->ReceiveItem("WanStatus", bytes));
  Report(status);
}

void ServiceTest::SyncRouting(std::vector<ConfiguredRoute> const& routes) {
  auto* routing = svc->RoutingCollection();
  ASSERT_NE(routing, nullptr);
  routing->BeginSync();
  std::vector<std::string> gone;
  for (auto const& [key, route] : routing->RoutesInForce()) gone.push_back(key);
  for (auto const& key : gone) routing->RemoveItem(key);
  for (auto const& r : routes) {
    dataIO::cDBConfigWanRoute entry(r.key, routing->GetDir(), Addr(r.network.c_str()),
                                    Addr(r.netmask.c_str()), Addr(r.gateway.c_str()),
                                    static_cast<std::uint8_t>(r.selector), "");
    kest::cSerializeBuffer bytes;
    entry.Serialize(bytes);
    ASSERT_TRUE(routing->ReceiveItem(r.key, bytes));
  }
  Report(routing);
}

void ServiceTest::ReachConfigApplied(std::vector<ConfiguredRoute> const& routes) {
  ConnectData();
  SyncStatus("dsl");
  SyncRouting(routes);
  hal.Take();
  data.Take();
  Traces();
}

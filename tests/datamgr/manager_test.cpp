#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>

#include "config_json.h"
#include "dataIO/data_client.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "kest/loop.h"
#include "kest/service.h"
#include "manager.h"
#include "store.h"

namespace datamgr {
namespace {

std::string const kStatus = "/Status/Network/";
std::string const kDsl = "/Config/Network/WanSetups/dsl/Routing/";

cDeviceConfig Example() {
  cDeviceConfig cfg;
  std::string error;
  EXPECT_TRUE(LoadDeviceConfig(EXAMPLE_CONFIG, cfg, error)) << error;
  return cfg;
}

std::string Text(std::vector<dataIO::proto::cSync> const& changes) {
  std::string out;
  for (auto const& c : changes) {
    out += c.dir + ":";
    for (auto const& e : c.entries) out += (e.remove ? " -" : " +") + e.name;
    out += "\n";
  }
  return out;
}

TEST(Store, OnlyWhatChangedIsInTheDiff) {
  cDeviceConfig const before = Example();
  Store const old = BuildStore(before);
  struct Case {
    char const* what;
    std::function<void(cDeviceConfig&)> change;
    char const* diff;
  } const cases[] = {
      {"nothing", [](cDeviceConfig&) {}, ""},
      {"WAN setup", [](cDeviceConfig& c) { c.wan.m_wanSetupName.Set("lte"); },
       "/Status/Network/: +WanStatus\n"},
      {"one route",
       [](cDeviceConfig& c) { c.wanSetups.at("dsl").at("office").m_gatewaySelector.Set(1); },
       "/Config/Network/WanSetups/dsl/Routing/: +office\n"},
      {"route gone and one added",
       [](cDeviceConfig& c) {
         c.wanSetups.at("lte").erase("provider");
         c.wanSetups["lte"].insert_or_assign("new", MakeRoute("lte", "new", 1, 0xFF000000, 1, 0, ""));
       },
       "/Config/Network/WanSetups/lte/Routing/: +new -provider\n"},
      {"setup gone", [](cDeviceConfig& c) { c.wanSetups.erase("fibre"); },
       "/Config/Network/WanSetups/fibre/Routing/: -office\n"},
  };
  for (auto const& c : cases) {
    cDeviceConfig after = before;
    c.change(after);
    EXPECT_EQ(Text(DiffStores(old, BuildStore(after))), c.diff) << c.what;
  }
}

// A data manager and a data client in one process and one loop: the client's
// side is asynchronous, so nothing blocks.
class ManagerTest : public ::testing::Test, public dataIO::IDataClient {
 protected:
  void SetUp() override {
    kest::ResetLoop();
    m_path = testing::TempDir() + "datamgr_manager_test.json";
    std::ifstream in(EXAMPLE_CONFIG);
    std::stringstream text;
    text << in.rdbuf();
    m_example = text.str();
    Write(m_example);
    manager = std::make_unique<cDataManager>(&service, Example(), m_path);
    std::string error;
    ASSERT_TRUE(manager->Listen("127.0.0.1:0", error)) << error;
    client = std::make_unique<dataIO::cDataClient>(
        &service, this, 1000, "127.0.0.1:" + std::to_string(manager->BoundPort()));
    ASSERT_TRUE(client->Start());
    status = new dataIO::cDBNetworkStatusCollection();
    routes = new dataIO::cDBWanRoutingCollection("dsl");
    ASSERT_TRUE(client->RegisterCollection(status));
    ASSERT_TRUE(client->RegisterCollection(routes));
    ASSERT_TRUE(RunUntil([&] { return syncs.size() == 2; }));
    syncs.clear();
  }
  void TearDown() override {
    client.reset();
    std::remove(m_path.c_str());
  }

  void OnConnect(kest::cServiceClient*) override {}
  void OnDisconnect(kest::cServiceClient*) override {}
  void OnSync(dataIO::cDataClient*, dataIO::cDBCollection* c) override {
    std::string line = c->GetDir();
    if (c == status) line += " setup " + status->ReceivedWanSetupName();
    if (c == routes) line += " " + std::to_string(routes->RoutesReceived().size()) + " routes";
    syncs.push_back(line);
  }

  bool RunUntil(std::function<bool()> done) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (!done() && std::chrono::steady_clock::now() < deadline) kest::Loop().RunOnce(10);
    return done();
  }
  void Settle() {
    for (int i = 0; i < 20; ++i) kest::Loop().RunOnce(5);
  }
  void Write(std::string const& text) { std::ofstream(m_path) << text; }

  kest::cService service;
  std::unique_ptr<cDataManager> manager;
  std::unique_ptr<dataIO::cDataClient> client;
  dataIO::cDBNetworkStatusCollection* status = nullptr;
  dataIO::cDBWanRoutingCollection* routes = nullptr;
  std::vector<std::string> syncs;
  std::string m_path, m_example;
};

TEST_F(ManagerTest, ControlRequestsReachTheSubscribers) {
  ctl::cRequest req;
  req.op = ctl::kOpSetWanSetup;
  req.setup = "lte";
  EXPECT_EQ(manager->Control(req, nullptr).rc, ctl::kOk);
  ASSERT_TRUE(RunUntil([&] { return !syncs.empty(); }));
  EXPECT_EQ(syncs[0], kStatus + " setup lte");

  syncs.clear();
  req = ctl::cRequest{};
  req.op = ctl::kOpRouteDel;
  req.setup = "dsl";
  req.key = "backup";
  EXPECT_EQ(manager->Control(req, nullptr).rc, ctl::kOk);
  EXPECT_EQ(manager->Control(req, nullptr).rc, ctl::kRefused);  // already gone
  ASSERT_TRUE(RunUntil([&] { return !syncs.empty(); }));
  Settle();
  EXPECT_EQ(syncs, std::vector<std::string>{kDsl + " 3 routes"});
}

TEST_F(ManagerTest, AReloadPushesOnlyTheDirectoriesThatChanged) {
  std::string changed = m_example;
  std::size_t const at = changed.find("\"netmask\": \"255.240.0.0\"");
  ASSERT_NE(at, std::string::npos);
  changed.replace(at, 24, "\"netmask\": \"255.255.0.0\"");
  Write(changed);
  std::string error;
  ASSERT_TRUE(manager->Reload(error)) << error;
  ASSERT_TRUE(RunUntil([&] { return !syncs.empty(); }));
  Settle();
  EXPECT_EQ(syncs, std::vector<std::string>{kDsl + " 4 routes"});  // the status is untouched

  // A broken file keeps what is in force and says why.
  syncs.clear();
  Write("{\n\"status\": \n");
  EXPECT_FALSE(manager->Reload(error));
  EXPECT_NE(error.find(m_path + ":3:"), std::string::npos) << error;
  Settle();
  EXPECT_TRUE(syncs.empty());
  EXPECT_EQ(manager->Config().wanSetups.at("dsl").at("backup").m_netmask.GetIPString(),
            "255.255.0.0");
}

}  // namespace
}  // namespace datamgr

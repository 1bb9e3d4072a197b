// The real datamgr as a child process: a data client subscribed to it,
// datactl run as users do, and signals.
#include <gtest/gtest.h>

#include <fstream>

#include "dataIO/data_client.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "kest/loop.h"
#include "kest/service.h"
#include "support/stack.h"

namespace testsupport {
namespace {

using Lines = std::vector<std::string>;
std::string const kStatus = "/Status/Network/";
std::string const kDsl = "/Config/Network/WanSetups/dsl/Routing/";

class DatamgrProcess : public ::testing::Test, public dataIO::IDataClient {
 protected:
  void SetUp() override {
    if (std::string const why = CannotStartPrograms(); !why.empty()) GTEST_SKIP() << why;
  }
  void OnConnect(kest::cServiceClient*) override {}
  void OnDisconnect(kest::cServiceClient*) override {}
  void OnSync(dataIO::cDataClient*, dataIO::cDBCollection* c) override {
    if (c == status) syncs.push_back(kStatus + " setup " + status->ReceivedWanSetupName());
    if (c == routes) syncs.push_back(kDsl + " " + std::to_string(routes->RoutesReceived().size()));
  }
  // The syncs from now until n have come, and a little longer for any that should not.
  Lines Syncs(std::size_t n = 1) {
    syncs.clear();
    PumpUntil([&] { return syncs.size() >= n; });
    Settle();
    return syncs;
  }

  kest::cService service;
  dataIO::cDBNetworkStatusCollection* status = nullptr;
  dataIO::cDBWanRoutingCollection* routes = nullptr;
  Lines syncs;
};

TEST_F(DatamgrProcess, ServesTheExampleFollowsDatactlReloadsOnSighupAndEndsOnSigterm) {
  // A copy of the shipped example, to be changed and reloaded.
  cStack dm;
  dm.dataConfig = dm.tmp.File("device.json");
  std::ofstream(dm.dataConfig) << ReadFile(EXAMPLE_CONFIG);
  dm.dataSap = "unix:" + dm.tmp.File("data.sock");
  ASSERT_TRUE(dm.StartDataMgr());
  dataIO::cDataClient client(&service, this, 1000, dm.dataSap);
  ASSERT_TRUE(client.Start());
  ASSERT_TRUE(client.RegisterCollection(status = new dataIO::cDBNetworkStatusCollection()));
  ASSERT_TRUE(client.RegisterCollection(routes = new dataIO::cDBWanRoutingCollection("dsl")));
  EXPECT_EQ(Syncs(2), (Lines{kStatus + " setup dsl", kDsl + " 4"})) << dm.data->Log();

  // A reload pushes only what changed: one route of the setup in force.
  std::string text = ReadFile(EXAMPLE_CONFIG);
  text.replace(text.find("\"255.240.0.0\""), 13, "\"255.255.0.0\"");
  std::ofstream(dm.dataConfig) << text;
  dm.data->Signal(SIGHUP);
  EXPECT_EQ(Syncs(), Lines{kDsl + " 4"}) << dm.data->Log();
  EXPECT_EQ(routes->RoutesReceived().at("backup").m_netmask.GetIPString(), "255.255.0.0");

  // A broken file is refused with its line and changes nothing: the next
  // sync is datactl's change alone.
  std::ofstream(dm.dataConfig)
      << "{\n\"status\": {\"wanSetup\": \"fibre\"}\n\"wanSetups\": {}\n}\n";
  dm.data->Signal(SIGHUP);
  EXPECT_TRUE(dm.data->WaitForLog("the previous configuration stays: " + dm.dataConfig + ":3:"))
      << dm.data->Log();
  EXPECT_EQ(dm.Datactl({"set-wan-setup", "lte"}).status, 0);
  EXPECT_EQ(Syncs(), Lines{kStatus + " setup lte"});
  EXPECT_EQ(dm.Datactl({"route-del", "dsl", "nosuchroute"}).status, 1);
  EXPECT_EQ(dm.data->Stop(), 0);
}

}  // namespace
}  // namespace testsupport

// The real datamgr as a child process: a data client subscribed to it,
// datactl run as users do, and signals.
#include "support/process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "dataIO/data_client.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "kest/loop.h"
#include "kest/service.h"

namespace datamgr {
namespace {

using Lines = std::vector<std::string>;
using namespace testsupport;
std::string const kStatus = "/Status/Network/";
std::string const kDsl = "/Config/Network/WanSetups/dsl/Routing/";

// datamgr on a Unix socket in a private directory with a copy of the shipped
// example, its output (and the stderr of the tools run against it) in a log.
class cDatamgr {
 public:
  cDatamgr() { std::ofstream(Config()) << ReadFile(EXAMPLE_CONFIG); }
  std::string Path() const { return m_dir.File("data.sock"); }
  std::string Sap() const { return "unix:" + Path(); }
  std::string Config() const { return m_dir.File("device.json"); }
  std::string Log() const { return ReadFile(m_dir.File("log")); }
  bool Logged(std::string const& text) const { return m_process.WaitForLog(text); }
  // True once it listens.
  bool Start(std::vector<std::string> args = {}) {
    args.insert(args.begin(), {DATAMGR_BIN, "--config", Config(), "--listen", Sap()});
    m_process.Start(args, m_dir.File("log"));
    return Logged("listening on");
  }
  void Signal(int sig) const { m_process.Signal(sig); }
  int Stop() { return m_process.Stop(); }
  // datactl run to its end: its exit status.
  int Datactl(std::string const& args) const {
    std::string const cmd = DATACTL_BIN " --server " + Sap() + " " + args;
    int const status = std::system((cmd + " >/dev/null 2>>" + m_dir.File("log")).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  cTempDir m_dir{"datamgr-test"};
  cProcess m_process;
};

class DatamgrProcess : public ::testing::Test, public dataIO::IDataClient {
 protected:
  void SetUp() override {
    if (std::string const why = testsupport::CannotStartPrograms(); !why.empty())
      GTEST_SKIP() << why;
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
  cDatamgr dm;
  ASSERT_TRUE(dm.Start()) << dm.Log();
  dataIO::cDataClient client(&service, this, 1000, dm.Sap());
  ASSERT_TRUE(client.Start());
  ASSERT_TRUE(client.RegisterCollection(status = new dataIO::cDBNetworkStatusCollection()));
  ASSERT_TRUE(client.RegisterCollection(routes = new dataIO::cDBWanRoutingCollection("dsl")));
  EXPECT_EQ(Syncs(2), (Lines{kStatus + " setup dsl", kDsl + " 4"})) << dm.Log();

  // A reload pushes only what changed: one route of the setup in force.
  std::string text = ReadFile(EXAMPLE_CONFIG);
  text.replace(text.find("\"255.240.0.0\""), 13, "\"255.255.0.0\"");
  std::ofstream(dm.Config()) << text;
  dm.Signal(SIGHUP);
  EXPECT_EQ(Syncs(), Lines{kDsl + " 4"}) << dm.Log();
  EXPECT_EQ(routes->RoutesReceived().at("backup").m_netmask.GetIPString(), "255.255.0.0");

  // A broken file is refused with its line and changes nothing: the next
  // sync is datactl's change alone.
  std::ofstream(dm.Config()) << "{\n\"status\": {\"wanSetup\": \"fibre\"}\n\"wanSetups\": {}\n}\n";
  dm.Signal(SIGHUP);
  EXPECT_TRUE(dm.Logged("the previous configuration stays: " + dm.Config() + ":3:")) << dm.Log();
  EXPECT_EQ(dm.Datactl("set-wan-setup lte"), 0);
  EXPECT_EQ(Syncs(), Lines{kStatus + " setup lte"});
  EXPECT_EQ(dm.Datactl("route-del dsl nosuchroute"), 1);
  EXPECT_EQ(dm.Datactl("route-set dsl"), 2);
  EXPECT_EQ(dm.Stop(), 0);
}

}  // namespace
}  // namespace datamgr

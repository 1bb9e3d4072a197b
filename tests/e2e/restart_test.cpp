// Peers of routemgr that go away and come back: everything it owns is
// requested again, and route clients notice nothing.
#include <gtest/gtest.h>

#include <fstream>

#include "e2e/stack.h"
#include "routeIO/route_client.h"

namespace e2e {
namespace {

constexpr char kDefault[] = "default via 192.168.1.254 metric 5";
constexpr char kHeld[] = "10.20.0.0/16 via 192.168.1.1 dev eth1 metric 0";
// routemgr requests everything again this often; a restarted proxy is whole
// again after its reconnection plus one such period (and some slack).
constexpr int kRefreshMs = 5000;
constexpr int kSlackMs = 2000;

routeIO::routeResult SetRoute(routeIO::cRouteClient& client, char const* tag, char const* net) {
  return client.SetRoute(kest::s_socket_addr(net, 0), kest::s_socket_addr("255.255.0.0", 0),
                         kest::s_socket_addr("192.168.1.1", 0), kest::s_socket_addr(), "", tag, 0);
}

TEST(E2eRestart, HalProxyRestartedEmptyGetsEveryRouteBackWithinOneRefresh) {
  cStack stack;
  ASSERT_TRUE(stack.Start());
  cToolRun r = stack.Routectl({"gateway", "set", "wired", "192.168.1.254", "dev", "eth1", "type",
                               "default", "metric", "5"});
  ASSERT_EQ(r.out, "ok\n");
  std::string batch = stack.Dir() + "/held.txt";
  std::ofstream(batch) << "route set held 10.20.0.0/16 via 192.168.1.1 dev eth1\n";
  auto held = stack.SpawnRoutectl({"--hold", "-b", batch});
  std::vector<std::string> const all{kDefault, example::kMgmtRoute, kHeld};
  ASSERT_TRUE(stack.WaitTable(all)) << testing::PrintToString(stack.HalTable());

  stack.hal->Stop();
  ASSERT_TRUE(stack.StartHal());
  EXPECT_TRUE(stack.hal->WaitForLog("ConfigureIPGateway", kStartTimeoutMs))
      << "routemgr did not come back to the HAL proxy";
  EXPECT_TRUE(stack.WaitTable(all, {}, kRefreshMs + kSlackMs))
      << testing::PrintToString(stack.HalTable());
  EXPECT_TRUE(held->Running());
}

TEST(E2eRestart, DataManagerRestartMakesRouteMgrReapplyTheConfiguration) {
  cStack stack;
  ASSERT_TRUE(stack.Start());
  routeIO::cRouteClient client;
  std::string error;
  ASSERT_TRUE(client.Connect(stack.RouteSap(), 3000, error)) << error;
  EXPECT_EQ(SetRoute(client, "before", "10.30.0.0").rc, 0);
  ASSERT_TRUE(stack.WaitTable({example::kMgmtRoute, "10.30.0.0/16 via 192.168.1.1 metric 0"}));

  // A change the data manager forgets when it restarts: routemgr follows it
  // now and must follow the restored configuration afterwards.
  cToolRun r = stack.Datactl({"route-del", "dsl", "mgmt"});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_TRUE(stack.WaitTable({}, {example::kMgmtRoute}));

  stack.data->Signal(SIGKILL);
  ASSERT_TRUE(stack.data->WaitExit(kStopTimeoutMs));
  ASSERT_TRUE(stack.StartDataMgr());
  EXPECT_TRUE(stack.data->WaitForLog("subscribed to /Config/Network/WanSetups/dsl/Routing/",
                                     kStartTimeoutMs));
  EXPECT_TRUE(stack.WaitTable({example::kMgmtRoute})) << testing::PrintToString(stack.HalTable());

  // Route clients were served throughout, old connections and new ones.
  EXPECT_EQ(SetRoute(client, "after", "10.31.0.0").rc, 0);
  cToolRun fresh = stack.Routectl({"route", "del", "before"});
  EXPECT_EQ(fresh.out, "ok\n");
  EXPECT_TRUE(stack.WaitTable({"10.31.0.0/16 via 192.168.1.1 metric 0"},
                              {"10.30.0.0/16 via 192.168.1.1 metric 0"}));
}

}  // namespace
}  // namespace e2e

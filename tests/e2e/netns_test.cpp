// The core scenario against a real kernel routing table: halproxy with its
// netlink backend inside a network namespace whose WAN interfaces are veth
// pairs to a second namespace holding the gateways. Needs root.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/stack.h"

namespace testsupport {
namespace {

// A router namespace and a WAN namespace, wired as the example
// configuration expects; both removed (with their veths) on destruction.
struct cNetns {
  std::string const router = "rme2e-" + std::to_string(getpid()), wan = router + "-wan";
  // What went wrong setting them up (ip says nothing when all goes well).
  std::string const error = Shell("set -e; R=" + router + "; W=" + wan + R"(
      ip netns add $R; ip netns add $W; ip -n $R link set lo up
      ip -n $R link add eth1 type veth peer name wan-wired netns $W
      ip -n $R link add wwan0 type veth peer name wan-wireless netns $W
      ip -n $R addr add 192.168.1.20/24 dev eth1; ip -n $R addr add 10.64.0.20/24 dev wwan0
      ip -n $W addr add 192.168.1.254/24 dev wan-wired
      ip -n $W addr add 10.64.0.1/24 dev wan-wireless
      for i in eth1 wwan0; do ip -n $R link set $i up; done
      for i in wan-wired wan-wireless; do ip -n $W link set $i up; done)");
  ~cNetns() { Shell("ip netns del " + router + "; ip netns del " + wan); }
  // Waits until some route of the router namespace begins with start.
  ::testing::AssertionResult Wait(std::string const& start, int ms = 3000) const {
    std::string routes;
    auto holds = [&] {
      routes = "\n" + Shell("ip -n " + router + " route");
      return routes.find("\n" + start) != std::string::npos;
    };
    if (PollUntil(holds, ms)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the kernel's routes:" << routes;
  }
};

TEST(E2eKernel, RoutesLandInARealKernelTable) {
  if (geteuid() != 0 || Shell("command -v ip").empty())
    GTEST_SKIP() << "needs root and the ip tool (iproute2)";
  cNetns ns;
  if (!ns.error.empty()) GTEST_SKIP() << "cannot set up network namespaces here: " << ns.error;
  cStack stack;
  stack.halPrefix = {"ip", "netns", "exec", ns.router};
  stack.halSap = "unix:" + stack.dir + "/hal.sock";  // reachable across namespaces
  // Orphans go after one refresh that does not ask for them, so the test
  // waits two refreshes, not four.
  stack.halArgs = {"--backend=netlink", "--sweep-after=1"};
  ASSERT_TRUE(stack.Start());
  EXPECT_TRUE(ns.Wait("192.168.50.0/24 via 192.168.1.254 dev eth1"));

  cToolRun r = stack.Routectl({"-b", "-"},
                              "gateway set wired 192.168.1.254 dev eth1 type default metric 5\n"
                              "gateway set wireless 10.64.0.1 dev wwan0\n");
  EXPECT_EQ(r.out, "ok\nok\n") << r.err;
  EXPECT_TRUE(ns.Wait("default via 192.168.1.254 dev eth1"));
  EXPECT_TRUE(ns.Wait("172.16.0.0/12 via 10.64.0.1 dev wwan0"));

  // A custom route for the prefix of a connected route is refused, and the
  // connected route stays.
  std::string const connected = "192.168.1.0/24 dev eth1 proto kernel";
  r = stack.Routectl(
      {"route", "set", "conn", "192.168.1.0/24", "via", "10.64.0.1", "dev", "wwan0"});
  EXPECT_EQ(r.out, "rc=-98 Address already in use\n") << r.err;
  EXPECT_TRUE(ns.Wait(connected));

  // Orphans: a default gateway replaced under its tag, a client holding
  // routes that is gone with a killed routemgr, the routes of a WAN setup
  // that a restarted datamgr no longer has in force. They converge within
  // two refreshes of the restarted daemon, and what is still wanted (the
  // configured route of setup dsl) never disappears meanwhile.
  r = stack.Datactl({"set-wan-setup", "fibre"});
  EXPECT_EQ(r.status, 0) << r.err;
  auto held = stack.SpawnRoutectl(
      "route set o1 10.71.0.0/16 via 192.168.1.254 dev eth1\n"
      "gateway set wired 192.168.1.253 dev eth1 type default metric 5\n");
  EXPECT_TRUE(ns.Wait("10.71.0.0/16"));
  EXPECT_TRUE(ns.Wait("10.10.0.0/16 via 192.168.1.253"));
  stack.route->Signal(SIGKILL);
  stack.data->Signal(SIGKILL);
  ASSERT_TRUE(stack.route->WaitExit() && stack.data->WaitExit());
  ASSERT_TRUE(stack.StartDataMgr());
  ASSERT_TRUE(stack.StartRouteMgr());
  EXPECT_TRUE(ns.Wait("192.168.50.0/24 via 192.168.1.254"));
  std::string routes;
  bool wantedStayed = true;
  auto converged = [&] {
    routes = "\n" + Shell("ip -n " + ns.router + " route");
    wantedStayed =
        wantedStayed && routes.find("\n192.168.50.0/24 via 192.168.1.254") != std::string::npos;
    for (char const* orphan : {"\n10.71.0.0/16", "\n10.10.0.0/16", "\ndefault", "\n172.16.0.0/12"})
      if (routes.find(orphan) != std::string::npos) return false;
    return true;
  };
  EXPECT_TRUE(PollUntil(converged, 3 * 5000)) << routes;
  EXPECT_TRUE(wantedStayed) << routes;
  EXPECT_NE(routes.find("\n" + connected), std::string::npos) << routes;
}

}  // namespace
}  // namespace testsupport

// The core scenario against a real kernel routing table: halproxy with its
// netlink backend inside a network namespace whose WAN interfaces are veth
// pairs to a second namespace holding the gateways. Needs root.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "e2e/stack.h"

namespace e2e {
namespace {

std::string IpTool() {
  for (char const* p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
    if (access(p, X_OK) == 0) return p;
  return "";
}

// A router namespace and a WAN namespace, wired as the example
// configuration expects; both removed (with their veths) on destruction.
class cNetns {
 public:
  cNetns(std::string ip, std::string const& dir)
      : m_ip(std::move(ip)),
        m_dir(dir),
        m_router("rme2e-" + std::to_string(getpid())),
        m_wan(m_router + "-wan") {}
  ~cNetns() {
    Ip({"netns", "del", m_router});
    Ip({"netns", "del", m_wan});
  }
  // False with what failed, e.g. when the environment forbids namespaces.
  bool Create(std::string& error) {
    std::vector<std::vector<std::string>> const steps = {
        {"netns", "add", m_router},
        {"netns", "add", m_wan},
        {"-n", m_router, "link", "set", "lo", "up"},
        {"-n", m_router, "link", "add", "eth1", "type", "veth", "peer", "name", "wan-wired",
         "netns", m_wan},
        {"-n", m_router, "link", "add", "wwan0", "type", "veth", "peer", "name", "wan-wireless",
         "netns", m_wan},
        {"-n", m_router, "addr", "add", "192.168.1.20/24", "dev", "eth1"},
        {"-n", m_router, "addr", "add", "10.64.0.20/24", "dev", "wwan0"},
        {"-n", m_wan, "addr", "add", "192.168.1.254/24", "dev", "wan-wired"},
        {"-n", m_wan, "addr", "add", "10.64.0.1/24", "dev", "wan-wireless"},
        {"-n", m_router, "link", "set", "eth1", "up"},
        {"-n", m_router, "link", "set", "wwan0", "up"},
        {"-n", m_wan, "link", "set", "wan-wired", "up"},
        {"-n", m_wan, "link", "set", "wan-wireless", "up"},
    };
    for (auto const& s : steps) {
      cToolRun r = Ip(s);
      if (r.status != 0) {
        error = "ip " + testing::PrintToString(s) + ": " + r.err;
        return false;
      }
    }
    return true;
  }
  std::vector<std::string> Routes() { return SplitLines(Ip({"-n", m_router, "route"}).out); }
  // Whether some route of the router namespace begins with start.
  bool Has(std::string const& start) {
    for (auto const& l : Routes())
      if (l.rfind(start, 0) == 0) return true;
    return false;
  }
  std::vector<std::string> ExecPrefix() const { return {m_ip, "netns", "exec", m_router}; }

 private:
  cToolRun Ip(std::vector<std::string> args) {
    args.insert(args.begin(), m_ip);
    return RunTool(args, m_dir + "/ip");
  }

  std::string m_ip, m_dir, m_router, m_wan;
};

TEST(E2eKernel, RoutesLandInARealKernelTable) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to create network namespaces";
  std::string ip = IpTool();
  if (ip.empty()) GTEST_SKIP() << "needs the ip tool (iproute2)";

  cStack::cOptions options;
  options.halOnUnixSocket = true;  // routemgr stays outside the namespace
  cTempDir scratch;
  cNetns ns(ip, scratch.Path());
  std::string error;
  if (!ns.Create(error)) GTEST_SKIP() << "cannot set up network namespaces here: " << error;
  options.halPrefix = ns.ExecPrefix();
  options.halArgs = {"--backend=netlink"};
  cStack stack(options);
  ASSERT_TRUE(stack.Start());

  EXPECT_TRUE(PollUntil([&] { return ns.Has("192.168.50.0/24 via 192.168.1.254 dev eth1"); }, 3000))
      << testing::PrintToString(ns.Routes());

  cToolRun r = stack.Routectl({"-b", "-"},
                              "gateway set wired 192.168.1.254 dev eth1 type default "
                              "metric 5\n"
                              "gateway set wireless 10.64.0.1 dev wwan0\n");
  EXPECT_EQ(r.out, "ok\nok\n") << r.err;
  EXPECT_TRUE(PollUntil(
      [&] {
        return ns.Has("default via 192.168.1.254 dev eth1") &&
               ns.Has("172.16.0.0/12 via 10.64.0.1 dev wwan0");
      },
      3000))
      << testing::PrintToString(ns.Routes());

  std::string batch = stack.Dir() + "/held.txt";
  std::ofstream(batch) << "route set held 10.20.0.0/16 via 192.168.1.1 dev eth1 metric 9\n";
  auto held = stack.SpawnRoutectl({"--hold", "-b", batch});
  EXPECT_TRUE(PollUntil([&] { return ns.Has("10.20.0.0/16 via 192.168.1.1 dev eth1"); }, 3000))
      << testing::PrintToString(ns.Routes());
  held->Signal(SIGKILL);
  EXPECT_TRUE(PollUntil([&] { return !ns.Has("10.20.0.0/16"); }, 3000))
      << testing::PrintToString(ns.Routes());

  // A failure of the kernel reaches the route client as its errno text.
  r = stack.Routectl({"route", "set", "x", "10.99.0.0/16", "via", "192.168.1.1", "dev", "nosuch0"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "rc=-19 No such device\n");
}

}  // namespace
}  // namespace e2e

// The netlink backend against a real kernel table: a network namespace of
// the test's own with a veth pair, halproxy --backend=netlink inside it, and
// the table read back with `ip route`. Needs root (CI runs as root).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "netlink_codec.h"
#include "proxy_process.h"

namespace halproxy_test {
namespace {

// Addresses from the documentation ranges: nothing here ever sends a packet,
// and nothing could reach another network from inside the namespace anyway.
char const* const kGw0 = "192.0.2.1";     // on veth0 (192.0.2.2/24)
char const* const kGw1 = "198.51.100.1";  // on veth1 (198.51.100.2/24)
char const* const kMask16 = "255.255.0.0";

std::vector<std::string> Lines(std::string const& command) {
  std::vector<std::string> lines;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return {"cannot run: " + command};
  char buf[512];
  while (std::fgets(buf, sizeof buf, p) != nullptr) {
    std::string line = buf;
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) line.pop_back();
    lines.push_back(line);
  }
  pclose(p);
  return lines;
}

class NetlinkKernel : public ::testing::Test {
 protected:
  void SetUp() override {
    kest::ResetLoop();
    if (geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace";
    m_ns = "rmhal-" + std::to_string(getpid());
    Sh("ip netns del " + m_ns + " 2>/dev/null");  // left over by a killed run
    if (Sh("ip netns add " + m_ns) != 0) {
      m_ns.clear();
      GTEST_SKIP() << "cannot create a network namespace (ip netns add failed)";
    }
    for (std::string cmd : {"link set lo up", "link add veth0 type veth peer name veth1",
                            "addr add 192.0.2.2/24 dev veth0", "addr add 198.51.100.2/24 dev veth1",
                            "link set veth0 up", "link set veth1 up"}) {
      ASSERT_EQ(0, Sh("ip -n " + m_ns + " " + cmd)) << cmd;
    }
  }
  void TearDown() override {
    if (m_proxy && (HasFailure() || getenv("HALPROXY_TEST_LOG"))) {
      std::fprintf(stderr, "halproxy log:\n%s", m_proxy->Log().c_str());
    }
    m_client.reset();
    m_proxy.reset();
    if (!m_ns.empty()) Sh("ip netns del " + m_ns);
    kest::ResetLoop();
  }

  static int Sh(std::string const& cmd) { return std::system(cmd.c_str()); }

  void StartProxy(std::vector<std::string> args) {
    args.push_back("--backend=netlink");
    args.push_back("--log-level=debug");
    m_proxy = std::make_unique<cProxyProcess>();
    std::string error;
    ASSERT_TRUE(m_proxy->Start(args, error, {"ip", "netns", "exec", m_ns})) << error;
    m_client = std::make_unique<cConnectedClient>(m_proxy->AccessPoint());
    ASSERT_TRUE(m_client->Connect());
  }

  hal::cHalClient& Hal() { return m_client->client; }
  int Set(char const* net, char const* mask, char const* gw, char const* dev, unsigned metric,
          bool avail = true, char const* src = "0.0.0.0") {
    return Hal().ConfigureIPGateway(net, mask, gw, src, dev, metric, avail);
  }
  // Our routes as `ip route` shows them.
  std::vector<std::string> Ours() {
    return Lines("ip -n " + m_ns + " -4 route show table main proto " +
                 std::to_string(halproxy::nl::kRouteProtocol));
  }
  std::vector<std::string> Others() {
    return Lines("ip -n " + m_ns + " -4 route show table main proto kernel");
  }

  std::string m_ns;
  std::unique_ptr<cProxyProcess> m_proxy;
  std::unique_ptr<cConnectedClient> m_client;
};

TEST_F(NetlinkKernel, RoutesAreMaskedReplacedAndRemoved) {
  StartProxy({});
  auto const others = Others();
  ASSERT_EQ(0, Set("10.1.2.3", kMask16, kGw0, "veth0", 0, true, "192.0.2.2"));
  ASSERT_EQ(0, Set("10.2.0.0", kMask16, kGw1, "", 7));
  EXPECT_EQ((std::vector<std::string>{"10.1.0.0/16 via 192.0.2.1 dev veth0 src 192.0.2.2",
                                      "10.2.0.0/16 via 198.51.100.1 dev veth1 metric 7"}),
            Ours());

  // The daemon repeats everything: identical requests leave the table alone,
  // a new gateway for the same prefix and metric replaces the old one.
  ASSERT_EQ(0, Set("10.2.0.0", kMask16, kGw1, "", 7));
  ASSERT_EQ(0, Set("10.1.0.0", kMask16, kGw1, "veth1", 0));
  ASSERT_EQ(0, Set("10.1.0.0", kMask16, kGw1, "veth1", 0));
  std::vector<std::string> expected = {"10.1.0.0/16 via 198.51.100.1 dev veth1",
                                       "10.2.0.0/16 via 198.51.100.1 dev veth1 metric 7"};
  EXPECT_EQ(expected, Ours());
  EXPECT_EQ((std::vector<std::string>{"10.1.0.0/16 via 198.51.100.1 dev veth1 metric 0",
                                      "10.2.0.0/16 via 198.51.100.1 dev veth1 metric 7"}),
            m_client->Routes());

  // Refusals: an interface that does not exist (the kernel would pick one),
  // a gateway on no link of ours (the kernel's own error), an unavailable
  // gateway in the default mode (nothing installed).
  EXPECT_EQ(-ENODEV, Set("10.3.0.0", kMask16, kGw0, "eth9", 0));
  EXPECT_GT(0, Set("10.3.0.0", kMask16, "203.0.113.1", "", 0));
  EXPECT_EQ(0, Set("10.4.0.0", kMask16, "0.0.0.0", "", 0, false));
  EXPECT_EQ(0, Hal().RemoveIPGateway("10.4.0.0", kMask16, "0.0.0.0", false));
  EXPECT_EQ(expected, Ours());

  EXPECT_EQ(0, Hal().RemoveIPGateway("10.1.9.9", kMask16, kGw1, true));
  EXPECT_EQ(0, Hal().RemoveIPGateway("10.1.0.0", kMask16, kGw1, true));  // already gone
  EXPECT_EQ(0, Hal().RemoveIPGateway("10.2.0.0", kMask16, kGw0, true));  // not via that gateway
  EXPECT_EQ(std::vector<std::string>{"10.2.0.0/16 via 198.51.100.1 dev veth1 metric 7"}, Ours());
  EXPECT_EQ(others, Others());  // the kernel's own routes are never touched
}

TEST_F(NetlinkKernel, DefaultGatewaysOfEqualMetricBothStay) {
  StartProxy({});
  for (int refresh = 0; refresh < 3; ++refresh) {
    ASSERT_EQ(0, Hal().ConfigureIpDefaultGateway(kGw0, 5));
    ASSERT_EQ(0, Hal().ConfigureIpDefaultGateway(kGw1, 5));
  }
  EXPECT_EQ((std::vector<std::string>{"default via 192.0.2.1 dev veth0 metric 5",
                                      "default via 198.51.100.1 dev veth1 metric 5"}),
            Ours());

  ASSERT_EQ(0, Hal().ConfigureIpDefaultGateway(kGw1, 2));  // a new metric replaces the old
  EXPECT_EQ((std::vector<std::string>{"default via 198.51.100.1 dev veth1 metric 2",
                                      "default via 192.0.2.1 dev veth0 metric 5"}),
            Ours());

  ASSERT_EQ(0, Hal().RemoveIPDefaultGateway(kGw0));
  ASSERT_EQ(0, Hal().RemoveIPDefaultGateway(kGw0));
  EXPECT_EQ(std::vector<std::string>{"default via 198.51.100.1 dev veth1 metric 2"}, Ours());
}

TEST_F(NetlinkKernel, UnavailableGatewayCanLeaveAnUnreachableRoute) {
  StartProxy({"--unavailable=unreachable"});
  ASSERT_EQ(0, Set("10.9.0.0", kMask16, "0.0.0.0", "", 0, false));
  ASSERT_EQ(0, Set("10.9.0.0", kMask16, "0.0.0.0", "", 0, false));
  EXPECT_EQ(std::vector<std::string>{"unreachable 10.9.0.0/16"}, Ours());

  // The gateway comes back: the real route takes the unreachable one's place.
  ASSERT_EQ(0, Set("10.9.0.0", kMask16, kGw0, "veth0", 0, true));
  EXPECT_EQ(std::vector<std::string>{"10.9.0.0/16 via 192.0.2.1 dev veth0"}, Ours());

  // And goes again, as the daemon brackets it: removal, then the unavailable set.
  ASSERT_EQ(0, Hal().RemoveIPGateway("10.9.0.0", kMask16, kGw0, true));
  ASSERT_EQ(0, Set("10.9.0.0", kMask16, "0.0.0.0", "", 0, false));
  EXPECT_EQ(std::vector<std::string>{"unreachable 10.9.0.0/16"}, Ours());
  ASSERT_EQ(0, Hal().RemoveIPGateway("10.9.0.0", kMask16, "0.0.0.0", false));
  EXPECT_EQ(std::vector<std::string>{}, Ours());
}

}  // namespace
}  // namespace halproxy_test

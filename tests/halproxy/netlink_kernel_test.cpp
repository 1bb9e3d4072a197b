// The netlink backend against a real kernel table: a network namespace of
// the test's own with a veth pair, the backend's sockets opened in it, and
// the table read back with `ip route`. Needs root (CI runs as root). The
// program on the kernel is tested end to end (tests/e2e/netns_test.cpp).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "netlink_backend.h"
#include "netlink_codec.h"
#include "semantics.h"
#include "support/process.h"

namespace halproxy_test {
namespace {

namespace nl = halproxy::nl;
using namespace halproxy_semantics;

class NetlinkKernel : public ::testing::Test {
 public:
  void SetUp() override {
    if (std::string const why = testsupport::CannotStartPrograms(); !why.empty())
      GTEST_SKIP() << why;
    if (geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace";
    if (!MakeNamespace(m_ns)) GTEST_SKIP() << "cannot create a network namespace";
  }
  void TearDown() override { Sh("ip netns del " + m_ns + " 2>/dev/null"); }
  static int Sh(std::string const& cmd) { return std::system(cmd.c_str()); }
  // A namespace with the two veth links the semantics table expects.
  static bool MakeNamespace(std::string const& ns) {
    bool ok = Sh("ip netns add " + ns) == 0;
    for (char const* cmd :
         {"link add veth0 type veth peer name veth1", "link set veth0 up", "link set veth1 up",
          "addr add 192.0.2.2/24 dev veth0", "addr add 198.51.100.2/24 dev veth1"})
      ok = ok && Sh("ip -n " + ns + " " + cmd) == 0;
    return ok;
  }
  // Our routes as `ip route` shows them.
  Lines Table() {
    Lines lines;
    std::istringstream out(testsupport::Shell("ip -n " + m_ns + " -4 route show table main proto " +
                                              std::to_string(nl::kRouteProtocol)));
    for (std::string l; std::getline(out, l);)
      lines.push_back(l.substr(0, l.find_last_not_of(' ') + 1));
    return lines;
  }
  // The backend in this process: its sockets stay in the namespace they
  // were opened in, so only Open runs there.
  static ::testing::AssertionResult OpenIn(std::string const& name,
                                           halproxy::cNetlinkBackend& backend) {
    int self = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    int ns = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    std::string error = "cannot enter the namespace";
    bool opened = false;
    if (self >= 0 && ns >= 0 && setns(ns, CLONE_NEWNET) == 0) {
      opened = backend.Open(error);
      if (setns(self, CLONE_NEWNET) != 0) std::abort();  // every later test would run in it
    }
    if (self >= 0) close(self);
    if (ns >= 0) close(ns);
    if (opened) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << error;
  }
  std::string const m_ns = "rmhal-" + std::to_string(getpid());
};

TEST_F(NetlinkKernel, ABatchAnswersEveryRouteAsItsOwnRequestWould) {
  halproxy::cNetlinkBackend backend;
  ASSERT_TRUE(OpenIn(m_ns, backend));
  // An unknown interface (never sent) and the kernel's refusal of a gateway
  // on no link of ours, amid routes that go in.
  std::vector<halproxy::cRoute> routes = {
      Route("10.1.0.0", 16, kGw0, "veth0", 0, "192.0.2.2"), Route("10.2.0.0", 16, kGw1, "", 7),
      Route("10.3.0.0", 16, kGw0, "eth9"), Route("10.4.0.0", 16, "203.0.113.1"),
      Route("10.5.0.0", 16, kGw0, "veth0")};
  std::vector<halproxy::cResult> results;
  backend.InstallMany(routes, halproxy::IRouteBackend::eInstall::kReplace, results);
  EXPECT_EQ((std::vector<int>{0, 0, -ENODEV, -ENETUNREACH, 0}), Codes(results));
  ASSERT_EQ(5u, results.size());
  EXPECT_EQ("no interface 'eth9'", results[2].detail);
  EXPECT_NE("", results[3].detail);  // the kernel's own reason
  EXPECT_EQ("", results[4].detail);
  EXPECT_EQ((Lines{"10.1.0.0/16 via 192.0.2.1 dev veth0 src 192.0.2.2",
                   "10.2.0.0/16 via 198.51.100.1 dev veth1 metric 7",
                   "10.5.0.0/16 via 192.0.2.1 dev veth0"}),
            Table());

  // Refusals enough for several chunks, all answered at once by the kernel
  // before we read: none may be lost, and the route after them goes in.
  routes.clear();
  for (unsigned i = 0; i < 2500; ++i)
    routes.push_back(Route(("10.100." + std::to_string(i % 250) + ".0").c_str(), 24, "203.0.113.1",
                           "", i / 250));
  routes.push_back(Route("10.6.0.0", 16, kGw1));
  backend.InstallMany(routes, halproxy::IRouteBackend::eInstall::kReplace, results);
  ASSERT_EQ(routes.size(), results.size());
  std::vector<int> expected(routes.size(), -ENETUNREACH);
  expected.back() = 0;
  EXPECT_EQ(expected, Codes(results));
  EXPECT_EQ(4u, Table().size());

  // Removals go in one exchange too; one that finds nothing has nothing to do.
  backend.RemoveMany(
      {Route("10.1.0.0", 16, kGw0), Route("10.9.0.0", 16, kGw0), Route("10.5.0.0", 16, kGw0)},
      results);
  EXPECT_EQ((std::vector<int>{0, 0, 0}), Codes(results));
  EXPECT_EQ((Lines{"10.2.0.0/16 via 198.51.100.1 dev veth1 metric 7",
                   "10.6.0.0/16 via 198.51.100.1 dev veth1"}),
            Table());
}

// The semantics table of the memory backend, on the kernel: each case in a
// fresh namespace, the backend in this process with its sockets in there.
class cKernelWorld : public IWorld {
 public:
  ~cKernelWorld() override { NetlinkKernel::Sh("ip netns del " + m_ns + " 2>/dev/null"); }
  bool Open() {
    return NetlinkKernel::MakeNamespace(m_ns) && NetlinkKernel::OpenIn(m_ns, m_backend);
  }
  halproxy::IRouteBackend& Backend() override { return m_backend; }
  void Do(std::string const& action) override {
    std::istringstream in(action);
    std::string what, arg, rest;
    in >> what >> arg;
    std::getline(in, rest);
    std::string cmd = what == "up" || what == "down" ? "link set " + arg + " " + what
                      : what == "foreign"
                          ? "route add " + arg + rest + " proto static"
                          : "route del " + arg + " proto " + std::to_string(nl::kRouteProtocol);
    EXPECT_EQ(0, NetlinkKernel::Sh("ip -n " + m_ns + " " + cmd)) << cmd;
  }

 private:
  std::string const m_ns = "rmsem-" + std::to_string(getpid());
  halproxy::cNetlinkBackend m_backend;
};

TEST_F(NetlinkKernel, SemanticsTableOnTheKernel) {
  RunCases([] {
    auto world = std::make_unique<cKernelWorld>();
    if (!world->Open()) {
      ADD_FAILURE() << "cannot set up a namespace";
      world.reset();
    }
    return world;
  });
}

}  // namespace
}  // namespace halproxy_test

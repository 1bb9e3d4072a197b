// The system as a user meets it, on one stack: routemgr and its init system,
// route clients and gateways in the HAL proxy's table, SIGUSR1 dumps (also
// under load), peers restarted. The dump file is always /tmp/routemgr.dmp:
// this test holds a CTest resource lock and knows its dump by its peers.
#include "support/stack.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <thread>

namespace testsupport {
namespace {

// Every test of this binary starts the programs: each skips itself where it cannot.
class cSkipWhenProgramsCannotStart : public ::testing::Environment {
  void SetUp() override {
    if (std::string const why = CannotStartPrograms(); !why.empty()) GTEST_SKIP() << why;
  }
};
[[maybe_unused]] ::testing::Environment* const g_skip =
    ::testing::AddGlobalTestEnvironment(new cSkipWhenProgramsCannotStart);

constexpr char kDumpFile[] = "/tmp/routemgr.dmp";
constexpr char kDefault[] = "default via 192.168.1.254 metric 5";
constexpr char kClientRoute[] = "10.20.0.0/16 via 192.168.1.1 dev eth1 src 192.168.1.20 metric 4";
// routemgr requests everything again this often; a restarted proxy is whole
// again after its reconnection plus one such period (and some slack).
constexpr int kRefreshMs = 5000, kSlackMs = 2000;

// Asks for a dump and reads it once it is whole: ours (it names our data
// manager), down to its last section, and the same on two reads in a row.
std::string FreshDump(cStack& stack) {
  unlink(kDumpFile);
  stack.route->Signal(SIGUSR1);
  std::string text;
  bool whole = PollUntil([&] {
    text = ReadFile(kDumpFile);
    if (text.rfind("--- ROUTEMGR LR-DUMP ---\n- Dumpsource: SIG_REQ\n", 0) != 0 ||
        text.find("CONNECTED (" + stack.dataSap + ")") == std::string::npos ||
        text.find("\n - Routes By Config:       ") == std::string::npos || text.back() != '\n')
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return ReadFile(kDumpFile) == text;
  });
  return whole ? text : "";
}

TEST(E2eStack, RouteClientsConfigurationDumpsRestartsAndTheInitSystem) {
  cStack stack;
  ASSERT_TRUE(stack.StartHal() && stack.StartDataMgr());
  // The systemd unit runs routemgr as Type=notify with a watchdog.
  std::string const notifyPath = stack.dir + "/notify";
  int notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un sa{AF_UNIX, {}};
  notifyPath.copy(sa.sun_path, sizeof(sa.sun_path) - 1);
  ASSERT_EQ(bind(notify, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
  std::string heard;
  auto hears = [&](std::string const& what) {
    return PollUntil([&] {
      char buf[512];
      for (ssize_t n; (n = recv(notify, buf, sizeof(buf), 0)) > 0;) heard.append(buf, n) += "\n";
      return heard.find(what) != std::string::npos;
    });
  };
  // Standard error as the journal's stream: each trace carries its priority.
  ASSERT_TRUE(stack.StartRouteMgr({"NOTIFY_SOCKET=" + notifyPath, "JOURNAL_STREAM="}));
  EXPECT_TRUE(hears("READY=1")) << heard;
  // The status follows the route tables.
  std::string const serving = "STATUS=serving route clients; connected 0, custom routes 0, ";
  EXPECT_EQ(stack.Routectl({"gateway", "set", "lab", "10.8.0.1"}).status, 0);
  EXPECT_TRUE(hears(serving + "gateways 1")) << heard;
  EXPECT_EQ(stack.route->Stop(), 0);
  std::string const log = stack.route->Log();
  for (char const* line : {"\n<6>RouteMgr 005 routemgr:", "\n<6>kest 005 scm.cpp:"})
    EXPECT_NE(log.find(line), std::string::npos) << line;
  close(notify);
  ASSERT_TRUE(stack.StartRouteMgr());

  // Setup "dsl" is in force: its route with a gateway of its own needs no WAN.
  EXPECT_TRUE(stack.WaitTable({kMgmtRoute}));
  cToolRun r = stack.Routectl({"-b", "-"},
                              "gateway set wired 192.168.1.254 dev eth1 type default metric 5\n"
                              "gateway set vpn 10.8.0.1 dev tun0 metric 7\n");
  EXPECT_EQ(r.out, "ok\nok\n") << r.err;
  // Host bits set: the table has the network masked (a dump shows it as given).
  auto client = stack.SpawnRoutectl(
      "route set backup 10.20.0.77/255.255.0.0 via 192.168.1.1 dev eth1 "
      "src 192.168.1.20 metric 4\n");
  EXPECT_TRUE(stack.WaitTable({kDefault, kClientRoute})) << client->Log();

  // A route goes with its client's connection.
  client->Stop();
  EXPECT_TRUE(stack.WaitTable({}, {kClientRoute}));

  // More routes than one answer of the HAL proxy lists (a 64 KiB frame takes
  // about 1,640 of these lines): its table comes in pieces, to the tools too.
  std::string batch;
  for (int i = 0; i < 2000; ++i)
    batch += "route set b" + std::to_string(i) + " 10.21." + std::to_string(i / 250) + "." +
             std::to_string(i % 250) + "/32 via 192.168.1.1 metric 3\n";
  client = stack.SpawnRoutectl(batch);
  EXPECT_TRUE(stack.WaitTable({"10.21.7.249/32 via 192.168.1.1 metric 3"})) << client->Log();
  std::vector<std::string> table = stack.HalTable();
  EXPECT_GT(table.size(), 2000u);
  r = stack.Routectl({"--hal", stack.halSap, "--hal-table", "-j"});
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), std::ptrdiff_t(table.size())) << r.err;
  EXPECT_NE(r.out.find(R"({"dst":"10.21.7.249/32","via":"192.168.1.1","metric":3,"route":)"),
            std::string::npos);

  // A proxy that goes away and comes back: routemgr requests everything
  // again and route clients notice nothing.
  stack.hal->Stop();
  ASSERT_TRUE(stack.StartHal());
  EXPECT_TRUE(stack.hal->WaitForLog("ConfigureIPGateway")) << "routemgr did not come back";
  EXPECT_TRUE(stack.WaitTable(table, {}, kRefreshMs + kSlackMs)) << testing::PrintToString(table);

  // Dumps stay whole while a route client sets and deletes routes as fast as
  // routemgr answers, now and then announcing a gateway too.
  std::ostringstream load;
  for (int n = 0; n < 12000; ++n) {
    std::string const tag = std::to_string(n % 150);
    load << ((n / 150) % 2 ? "route del t" + tag
                           : "route set t" + tag + " 10.40." + tag + ".0/24 via 192.168.1.1")
         << "\n";
    if (n % 500 == 0) load << "gateway set g 192.168.1." << n % 250 + 1 << "\n";
  }
  auto loader = stack.SpawnRoutectl(load.str(), false);
  int dumps = 0, underLoad = 0;
  for (; loader->Running() || dumps < 3; ++dumps) {
    underLoad += loader->Running();
    ASSERT_NE(FreshDump(stack), "") << "no whole dump under load (dump " << dumps << ")";
  }
  EXPECT_EQ(loader->Status(), 0) << loader->Log().substr(0, 400);
  EXPECT_GT(underLoad, 0) << "the load was over before the first dump";

  // What routemgr installed stays when it ends; a client holding routes
  // learns that they are gone.
  table = stack.HalTable();
  EXPECT_EQ(stack.route->Stop(), 0);
  EXPECT_EQ(stack.HalTable(), table);
  EXPECT_TRUE(client->WaitExit());
  EXPECT_EQ(client->Status(), 1);
  EXPECT_NE(client->Log().find("the route manager closed the connection"), std::string::npos);
}

}  // namespace
}  // namespace testsupport

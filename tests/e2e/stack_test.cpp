// The system as a user meets it, on one stack: routemgr and its init system,
// route clients and gateways in the HAL proxy's table, SIGUSR1 dumps (also
// under load), peers restarted. The dump file is always /tmp/routemgr.dmp:
// this test holds a CTest resource lock and knows its dump by its peers.
#include "e2e/stack.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

#include "hal/hal_client.h"
#include "kest/service.h"
#include "routeIO/route_client.h"

namespace e2e {
namespace {

constexpr char kDumpFile[] = "/tmp/routemgr.dmp";
constexpr char kDefault[] = "default via 192.168.1.254 metric 5";
constexpr char kClientRoute[] = "10.20.0.0/16 via 192.168.1.1 dev eth1 src 192.168.1.20 metric 4";
constexpr char kHeld[] = "10.21.0.0/16 via 192.168.1.1 metric 3";
constexpr char kNet30[] = "10.30.0.0/16 via 192.168.1.1 metric 0";
// routemgr requests everything again this often; a restarted proxy is whole
// again after its reconnection plus one such period (and some slack).
constexpr int kRefreshMs = 5000, kSlackMs = 2000;

// A route through 192.168.1.1 set by client: its result code.
int SetRoute(routeIO::cRouteClient& client, char const* tag, char const* net,
             char const* src = "0.0.0.0", char const* dev = "", int metric = 0) {
  using kest::s_socket_addr;
  return client
      .SetRoute(s_socket_addr(net, 0), s_socket_addr("255.255.0.0", 0),
                s_socket_addr("192.168.1.1", 0), s_socket_addr(src, 0), dev, tag, metric)
      .rc;
}

// Asks for a dump and reads it once it is whole: ours (it names our data
// manager), ending in a newline, and the same on two reads in a row.
std::string FreshDump(cStack& stack) {
  unlink(kDumpFile);
  stack.route->Signal(SIGUSR1);
  std::string text;
  bool whole = PollUntil([&] {
    text = ReadFile(kDumpFile);
    if (text.empty() || text.back() != '\n' ||
        text.find("CONNECTED (" + stack.dataSap + ")") == std::string::npos)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return ReadFile(kDumpFile) == text;
  });
  return whole ? text : "";
}

// "" or what is wrong with the dump's structure: every count matches the
// blocks that follow it, nothing is cut short or left over.
std::string Inconsistency(std::string const& text) {
  std::istringstream in(text);
  std::string l;
  auto next = [&] { return std::getline(in, l) ? l : l = "<end>"; };
  if (next() != "--- ROUTEMGR LR-DUMP ---" || next() != "- Dumpsource: SIG_REQ") return "header";
  for (int i = 0; i < 6; ++i)
    if (next().rfind(" - m_", 0) != 0) return "state line: " + l;
  using Table = std::tuple<char const*, char const*, int>;  // label, block, its further lines
  for (auto [label, block, lines] : {Table{" - m_Gateways:             ", "  - cGWEntry:", 5},
                                     Table{" - m_Routes:               ", "  - cRouteEntry:", 6},
                                     Table{" - Routes By Config:       ", "  - ", 0}}) {
    int n = next().rfind(label, 0) == 0 ? std::atoi(l.c_str() + std::strlen(label)) : -1;
    if (l != label + (n > 0 ? std::to_string(n) + " Entries" : "EMPTY")) return "count: " + l;
    for (; n > 0; --n) {
      if (next().rfind(block, 0) != 0) return "block: " + l;
      for (int m = 0; m < lines; ++m)
        if (next().rfind("   - ", 0) != 0) return "entry line: " + l;
    }
  }
  return next() == "<end>" ? "" : "left over: " + l;
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
  auto hears = [&](std::string const& what, int times = 1) {
    return PollUntil([&] {
      char buf[512];
      for (ssize_t n; (n = recv(notify, buf, sizeof(buf), 0)) > 0;) heard.append(buf, n) += "\n";
      int seen = 0;
      for (auto at = heard.find(what); at != std::string::npos; at = heard.find(what, at + 1))
        ++seen;
      return seen >= times;
    });
  };
  // Standard error as the journal's stream: each trace carries its priority.
  ASSERT_TRUE(stack.StartRouteMgr({"NOTIFY_SOCKET=" + notifyPath, "JOURNAL_STREAM="}));
  EXPECT_TRUE(hears("READY=1")) << heard;
  // The status follows the peers and the route tables.
  std::string const serving = "STATUS=serving route clients; connected 0, custom routes 0, ";
  EXPECT_TRUE(hears(serving + "gateways 0")) << heard;
  EXPECT_EQ(stack.Routectl({"gateway", "set", "lab", "10.8.0.1"}).status, 0);
  EXPECT_TRUE(hears(serving + "gateways 1")) << heard;
  stack.data->Stop();
  EXPECT_TRUE(hears("STATUS=waiting for the data manager (" + stack.dataSap + ")")) << heard;
  ASSERT_TRUE(stack.StartDataMgr());
  EXPECT_TRUE(hears(serving + "gateways 1", 2)) << heard;
  EXPECT_EQ(stack.route->Stop(), 0);
  std::string const log = stack.route->Log();
  for (char const* line : {"\ncRouteMgrService::connected to scm\n",  // standard output: as it was
                           "\n<6>RouteMgr 005 routemgr:", "\n<4>kest 002 service_client.cpp:",
                           "\n<6>kest 005 scm.cpp:"})
    EXPECT_NE(log.find(line), std::string::npos) << line;
  close(notify);
  ASSERT_TRUE(stack.StartRouteMgr());

  // Setup "dsl" is in force: its route with a gateway of its own needs no WAN.
  EXPECT_TRUE(stack.WaitTable({kMgmtRoute}));
  cToolRun r = stack.Routectl({"-b", "-"},
                              "gateway set wired 192.168.1.254 dev eth1 type default metric 5\n"
                              "gateway set vpn 10.8.0.1 dev tun0 metric 7\n");
  EXPECT_EQ(r.out, "ok\nok\n") << r.err;
  routeIO::cRouteClient client;
  std::string error;
  ASSERT_TRUE(client.Connect(stack.routeSap, 3000, error)) << error;
  // Host bits set: the dump shows the network as given.
  EXPECT_EQ(SetRoute(client, "backup", "10.20.0.77", "192.168.1.20", "eth1", 4), 0);
  EXPECT_TRUE(stack.WaitTable({kDefault, kClientRoute}));

  std::string dump = FreshDump(stack);
  EXPECT_EQ(Inconsistency(dump), "") << dump;
  for (std::string const& part : {" - m_dataClient:           CONNECTED (" + stack.dataSap + ")\n",
                                  " - m_halClient:            CONNECTED (" + stack.halSap + ")\n",
                                  std::string(" - m_Gateways:             2 Entries\n"
                                              "  - cGWEntry:\n   - Gateway Tag:   vpn\n"),
                                  std::string("   - Route Tag:           backup\n"
                                              "   - Network:             10.20.0.77/255.255.0.0\n"),
                                  std::string(" - Routes By Config:       4 Entries\n")})
    EXPECT_NE(dump.find(part), std::string::npos) << part << dump;

  // A route goes with its client's connection.
  client.Close();
  EXPECT_TRUE(stack.WaitTable({}, {kClientRoute}));
  EXPECT_NE(FreshDump(stack).find(" - m_Routes:               EMPTY\n"), std::string::npos);

  // Peers that go away and come back: routemgr requests everything again
  // and route clients notice nothing. A change the data manager forgets
  // when it is killed: routemgr follows the restored configuration.
  ASSERT_TRUE(client.Connect(stack.routeSap, 3000, error)) << error;
  EXPECT_EQ(SetRoute(client, "30", "10.30.0.0"), 0);
  EXPECT_EQ(stack.Datactl({"route-del", "dsl", "mgmt"}).status, 0);
  EXPECT_TRUE(stack.WaitTable({kNet30}, {kMgmtRoute}));
  stack.data->Signal(SIGKILL);
  ASSERT_TRUE(stack.data->WaitExit());
  ASSERT_TRUE(stack.StartDataMgr());
  EXPECT_TRUE(stack.WaitTable({kMgmtRoute, kNet30}));
  std::vector<std::string> table = stack.HalTable();
  stack.hal->Stop();
  ASSERT_TRUE(stack.StartHal());
  EXPECT_TRUE(stack.hal->WaitForLog("ConfigureIPGateway")) << "routemgr did not come back";
  EXPECT_TRUE(stack.WaitTable(table, {}, kRefreshMs + kSlackMs)) << testing::PrintToString(table);

  // Dumps stay whole while route clients set and delete routes as fast as
  // routemgr answers, now and then announcing a gateway too.
  std::vector<std::unique_ptr<cProcess>> load;
  for (int c = 0; c < 3; ++c) {
    std::ostringstream f;
    for (int n = 0; n < 6000; ++n) {
      int const tag = n % 150;
      if ((n / 150) % 2 == 0)
        f << "route set c" << c << "-" << tag << " 10." << c + 40 << "." << tag
          << ".0/24 via 192.168.1.1 dev eth1 metric " << n << "\n";
      else
        f << "route del c" << c << "-" << tag << "\n";
      if (n % 500 == 0) f << "gateway set g" << c << " 192.168.1." << n % 250 + 1 << "\n";
    }
    load.push_back(stack.SpawnRoutectl({"-b", stack.Write("load" + std::to_string(c), f.str())}));
  }
  auto loaded = [&] {
    return std::any_of(load.begin(), load.end(), [](auto& p) { return p->Running(); });
  };
  int dumps = 0, underLoad = 0;
  for (; loaded() || dumps < 3; ++dumps) {
    underLoad += loaded();
    dump = FreshDump(stack);
    ASSERT_NE(dump, "") << "no dump under load (dump " << dumps << ")";
    ASSERT_EQ(Inconsistency(dump), "") << dump;
  }
  for (auto& p : load) EXPECT_EQ(p->Status(), 0) << p->Log().substr(0, 400);
  EXPECT_GT(underLoad, 0) << "the load was over before the first dump";

  // What routemgr installed stays when it ends; a client holding routes
  // learns that they are gone.
  auto held = stack.SpawnRoutectl(
      {"--hold", "-b",
       stack.Write("held", "route set b 10.21.0.9/255.255.0.0 via 192.168.1.1 metric 3\n")});
  EXPECT_TRUE(stack.WaitTable({kHeld})) << held->Log();
  table = stack.HalTable();
  EXPECT_EQ(stack.route->Stop(), 0);
  EXPECT_EQ(stack.HalTable(), table);
  EXPECT_TRUE(held->WaitExit());
  EXPECT_EQ(held->Status(), 1);
  EXPECT_NE(held->Log().find("the route manager closed the connection"), std::string::npos);
}

// Far more routes than one answer of the HAL proxy holds: routectl gets them
// all, in pieces, and prints each as a JSON object.
TEST(E2eStack, RoutectlListsAHalTableOfTwentyThousandRoutesAsJson) {
  cStack stack;
  ASSERT_TRUE(stack.StartHal());
  kest::cService service;
  hal::cHalClient client(&service, nullptr, 5000, stack.halSap);
  client.Start();
  ASSERT_TRUE(testsupport::PumpUntil([&] { return client.IsConnected(); }));
  std::multiset<std::string> want, got;
  for (int i = 0; i < 20000; ++i) {
    std::string const net = "10." + std::to_string(i / 256) + "." + std::to_string(i % 256) + ".0";
    ASSERT_EQ(
        0, client.ConfigureIPGateway(net, "255.255.255.0", "192.168.1.1", "0.0.0.0", "", 7, true));
    want.insert(R"({"dst":")" + net + R"(/24","via":"192.168.1.1","metric":7,"route":")" + net +
                R"(/24 via 192.168.1.1 metric 7"})");
  }
  cToolRun const run = stack.Routectl({"--hal", stack.halSap, "--hal-table", "-j"});
  ASSERT_EQ(run.status, 0) << run.err;
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) got.insert(line);
  EXPECT_TRUE(got == want) << got.size() << " lines; " << (got.empty() ? "" : *got.begin());
}

}  // namespace
}  // namespace e2e

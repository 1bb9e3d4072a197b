// The system as a user meets it: routectl and datactl against halproxy,
// datamgr and routemgr, checked in the HAL proxy's table. One stack for all
// the steps that need no refresh, so the suite stays quick.
#include "e2e/stack.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

namespace e2e {
namespace {

using Lines = std::vector<std::string>;

constexpr char kOffice254[] = "10.10.0.0/16 via 192.168.1.254 dev eth1 metric 0";
constexpr char kOffice253[] = "10.10.0.0/16 via 192.168.1.253 dev eth1 metric 0";
constexpr char kHeldA[] = "10.20.0.0/16 via 192.168.1.1 dev eth1 metric 0";
constexpr char kHeldB[] = "10.21.0.0/16 via 192.168.1.1 metric 3";

std::string WriteBatch(cStack const& stack, std::string const& name, std::string const& text) {
  std::string path = stack.Dir() + "/" + name;
  std::ofstream(path) << text;
  return path;
}

TEST(E2eStack, RouteClientsGatewaysAndConfigurationReachTheHalProxy) {
  cStack stack;
  ASSERT_TRUE(stack.Start());

  // Setup "dsl" is in force: its route with a gateway of its own needs no WAN.
  EXPECT_TRUE(stack.WaitTable({example::kMgmtRoute})) << testing::PrintToString(stack.HalTable());

  cToolRun r = stack.Routectl({"gateway", "set", "wired", "192.168.1.254", "dev", "eth1", "type",
                               "default", "metric", "5"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "ok\n");
  EXPECT_TRUE(stack.WaitTable({"default via 192.168.1.254 metric 5"}));

  // A WAN setup change swaps the configured routes.
  r = stack.Datactl({"set-wan-setup", "fibre"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(stack.WaitTable({kOffice254}, {example::kMgmtRoute}))
      << testing::PrintToString(stack.HalTable());

  // Configured routes follow the wired gateway, and go with it.
  r = stack.Routectl({"gateway", "set", "wired", "192.168.1.253", "dev", "eth1"});
  EXPECT_EQ(r.out, "ok\n");
  EXPECT_TRUE(stack.WaitTable({kOffice253}, {kOffice254}))
      << testing::PrintToString(stack.HalTable());
  r = stack.Routectl({"gateway", "del", "wired"});
  EXPECT_EQ(r.out, "ok\n");
  EXPECT_TRUE(stack.WaitTable({}, {kOffice253}));

  // Held routes live as long as routectl's connection: a clean exit ...
  std::string batch = WriteBatch(stack, "held.txt",
                                 "# custom routes\n"
                                 "route set a 10.20.0.0/16 via 192.168.1.1 dev eth1\n"
                                 "route set b 10.21.0.9/255.255.0.0 via 192.168.1.1 metric 3\n");
  auto held = stack.SpawnRoutectl({"--hold", "-b", batch});
  EXPECT_TRUE(stack.WaitTable({kHeldA, kHeldB})) << testing::PrintToString(stack.HalTable());
  EXPECT_EQ(held->Stop(), 0);
  EXPECT_EQ(held->Log().substr(0, 6), "ok\nok\n");
  EXPECT_TRUE(stack.WaitTable({}, {kHeldA, kHeldB}));

  // ... and a routectl that is killed lose them alike.
  auto killed = stack.SpawnRoutectl({"--hold", "-b", batch});
  EXPECT_TRUE(stack.WaitTable({kHeldA, kHeldB}));
  killed->Signal(SIGKILL);
  EXPECT_TRUE(killed->WaitExit(kStopTimeoutMs));
  EXPECT_TRUE(stack.WaitTable({}, {kHeldA, kHeldB}));

  // Batch from standard input: one answer a command, malformed lines named,
  // and the routes gone once the input ends.
  r = stack.Routectl({"-b", "-"},
                     "route set c 10.22.0.0/16 via 192.168.1.1\n"
                     "route del nothing-here\n"
                     "route set broken 10.0.0.0/8\n"
                     "gateway set vpn 10.8.0.1 dev tun0 metric 7\n");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "ok\nrc=-100 unknown tag\nok\n");
  EXPECT_NE(r.err.find("line 3: 'via GW' is missing"), std::string::npos) << r.err;
  EXPECT_TRUE(stack.WaitTable({}, {"10.22.0.0/16 via 192.168.1.1 metric 0"}));

  // routemgr ends cleanly on SIGTERM; what it installed stays.
  EXPECT_EQ(stack.route->Stop(), 0);
  EXPECT_EQ(stack.route->CountInLog("cRouteMgrService::connected to scm"), 1);
  EXPECT_TRUE(stack.WaitTable({"default via 192.168.1.254 metric 5"}));
}

// The systemd unit runs routemgr as Type=notify with a watchdog: it must say
// when it is ready, keep the watchdog fed and say when it stops.
TEST(E2eStack, RouteMgrTalksToTheInitSystem) {
  cStack stack;
  ASSERT_TRUE(stack.StartHal() && stack.StartDataMgr());
  std::string const path = stack.Dir() + "/notify";
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  std::strncpy(sa.sun_path, path.c_str(), sizeof(sa.sun_path) - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
  std::string received;
  auto receive = [&] {
    char buf[512];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof(buf), 0)) > 0) received.append(buf, n).append("\n");
  };
  auto heard = [&](std::string const& what, int times) {
    return PollUntil(
        [&] {
          receive();
          int n = 0;
          for (auto pos = received.find(what); pos != std::string::npos;
               pos = received.find(what, pos + 1))
            ++n;
          return n >= times;
        },
        kStartTimeoutMs);
  };

  stack.route = std::make_unique<cProcess>(
      "routemgr",
      std::vector<std::string>{ROUTEMGR_BIN, "--prop", "system.customHalProxSap=" + stack.HalSap(),
                               "--prop", "system.customDataMgrSap=" + stack.DataSap(), "--prop",
                               "system.routeMgrSap=" + stack.RouteSap()},
      stack.Dir() + "/routemgr-notify.log");
  stack.route->AddEnv("NOTIFY_SOCKET=" + path);
  stack.route->AddEnv("WATCHDOG_USEC=200000");  // fed every 100 ms
  ASSERT_TRUE(stack.route->Start());
  EXPECT_TRUE(heard("READY=1", 1)) << received;
  EXPECT_TRUE(heard("WATCHDOG=1", 3)) << received;
  EXPECT_EQ(stack.route->Stop(), 0);
  EXPECT_TRUE(heard("STOPPING=1", 1)) << received;
  close(fd);
}

}  // namespace
}  // namespace e2e

#include <sys/stat.h>
#include <unistd.h>

#include "diag/dump_signal.h"
#include "service_fixture.h"
#include "support/poll.h"

using namespace testsupport;

TEST_F(ServiceTest, DumpOfAFreshService) {
  cTempDir dir("routemgr-dump");
  WriteDump(svc.get(), SIG_REQ, dir.Path());
  EXPECT_EQ(ReadFile(dir.Path() + "/routemgr.dmp"),
            "--- ROUTEMGR LR-DUMP ---\n"
            "- Dumpsource: SIG_REQ\n"
            " - m_dataClient:           NOT CONNECTED (127.0.0.1:1)\n"
            " - m_halClient:            NOT CONNECTED (127.0.0.1:2)\n"
            " - m_networkStatus:        IS NULL ()\n"
            " - m_StatusReceived:       FALSE\n"
            " - m_RoutingCollection:    IS NULL ()\n"
            " - m_ConfigReceived:       FALSE\n"
            " - m_Gateways:             EMPTY\n"
            " - m_Routes:               EMPTY\n"
            " - Service not completely started yet - Routes By Config not available\n");
  EXPECT_TRUE(Traces().empty());
}

TEST_F(ServiceTest, DumpWithGatewaysRoutesAndConfiguredRoutes) {
  SetGw("wired", "192.168.1.1", DEFAULT, 4294967295u, "eth1");
  SetGw("vpn", "10.8.0.1", NORMAL, 1, "tun0");
  SetRoute(1, "192.168.9.77", "255.255.255.0", "10.0.0.1", "cam", "192.168.9.1", "eth3", 12);
  ReachConfigApplied({});
  std::string text = svc->ToString(" ");
  std::string const gateways =
      " - m_RoutingCollection:    IS SYNCED (/Config/Network/WanSetups/dsl/Routing/)\n"
      " - m_ConfigReceived:       TRUE\n"
      " - m_Gateways:             2 Entries\n"
      "  - cGWEntry:\n"
      "   - Gateway Tag:   vpn\n"
      "   - m_gatewayIP:   10.8.0.1\n"
      "   - m_gatewayIF:   tun0\n"
      "   - m_gatewayPrio: 1\n"
      "   - m_gatewayType: NORMAL\n"
      "  - cGWEntry:\n"
      "   - Gateway Tag:   wired\n"
      "   - m_gatewayIP:   192.168.1.1\n"
      "   - m_gatewayIF:   eth1\n"
      "   - m_gatewayPrio: -1\n"
      "   - m_gatewayType: DEFAULT\n"
      " - m_Routes:               1 Entries\n"
      "  - cRouteEntry:\n"
      "   - Route Tag:           cam\n"
      "   - Network:             192.168.9.77/255.255.255.0\n"
      "   - m_gatewayIP:         10.0.0.1\n"
      "   - m_preferredSourceIP: 192.168.9.1\n"
      "   - m_gatewayIF:         eth3\n"
      "   - m_routePrio:         12\n"
      " - Routes By Config:       EMPTY\n";
  EXPECT_NE(text.find(gateways), std::string::npos) << text;

  SyncRouting({{"office", "10.10.0.0", "255.255.0.0", 1}});
  text = svc->ToString(" ");
  EXPECT_NE(text.find(" - Routes By Config:       1 Entries\n  - office:"), std::string::npos)
      << text;
}

TEST_F(ServiceTest, DumpSourcesAndFailures) {
  cTempDir dir("routemgr-dump"), other("routemgr-dump-planted");
  std::string const file = dir.File("routemgr.dmp");
  EXPECT_TRUE(svc->OnDumpRequest(nullptr, kest::s_string("/nonexistent/dir")));
  EXPECT_EQ(access("/nonexistent/dir/routemgr.dmp", F_OK), -1);
  EXPECT_TRUE(svc->OnDumpRequest(nullptr, kest::s_string(dir.Path())));
  EXPECT_EQ(ReadFile(file).substr(25, 22), "- Dumpsource: SRV_REQ\n");

  // A planted symlink or FIFO is not followed or waited on; its target stays as it was.
  std::string const dump = other.File("routemgr.dmp"), target = other.File("target");
  std::fclose(std::fopen(target.c_str(), "w"));
  ASSERT_EQ(symlink(target.c_str(), dump.c_str()), 0);
  EXPECT_TRUE(svc->OnDumpRequest(nullptr, kest::s_string(other.Path())));
  EXPECT_EQ(ReadFile(target), "");
  ASSERT_EQ(unlink(dump.c_str()) + mkfifo(dump.c_str(), 0666), 0);
  EXPECT_TRUE(svc->OnDumpRequest(nullptr, kest::s_string(other.Path())));
}

#include "service_fixture.h"

using Lines = std::vector<std::string>;

TEST_F(ServiceTest, ConfiguredRoutesFollowTheirSelector) {
  SetGw("vpn", "10.8.0.1", NORMAL, 7, "tun0");
  SetGw("wired", "192.168.1.1", NORMAL, 9, "eth1");
  ReachConfigApplied({});
  SyncRouting({
      {"a-wired", "10.10.3.4", "255.255.0.0", 1},
      {"b-wireless", "10.20.0.0", "255.255.0.0", 2},
      {"c-vpn", "172.16.5.9", "255.255.0.0", 3},
      {"d-own", "10.40.0.0", "255.255.0.0", 4, "192.168.5.254"},
      {"e-none", "10.50.0.0", "255.255.0.0", 0},
      {"f-nine", "10.60.0.0", "255.255.0.0", 9},
      {"g-last", "10.70.0.0", "255.255.0.0", 1},
  });
  EXPECT_EQ(hal.Take(),
            (Lines{
                // wired ignores the gateway's priority; a missing WAN gets 0.0.0.0, flag false
                "ConfigureIPGateway 10.10.0.0 255.255.0.0 192.168.1.1 0.0.0.0 'eth1' 0 1",
                "ConfigureIPGateway 10.20.0.0 255.255.0.0 0.0.0.0 0.0.0.0 '' 0 0",
                "ConfigureIPGateway 172.16.0.0 255.255.0.0 10.8.0.1 0.0.0.0 'tun0' 7 1",
                "ConfigureIPGateway 10.40.0.0 255.255.0.0 192.168.5.254 0.0.0.0 '' 0 1",
                "ConfigureIPGateway 10.70.0.0 255.255.0.0 192.168.1.1 0.0.0.0 'eth1' 0 1",
            }));
  auto traces = Traces();
  ASSERT_EQ(traces.size(), 6u);
  EXPECT_EQ(traces[1], "Routing Collection Changed - Deleting/Setting Routes");
  EXPECT_EQ(traces[4],
            "SetRoutesByGw (_bNewVal:true, _bDelRoutes:false, bWiredAvail:true, "
            "bWirelessAvail:false, bVPNAvail:true)");
  // Skipped selectors still count.
  EXPECT_EQ(traces[5], "(try) setting 7 routes (OtherMapSize:0)");
}

TEST_F(ServiceTest, RefreshRequestsEverythingSilentlyInFixedOrder) {
  SetGw("up", "10.0.0.1", DEFAULT, 3);
  SetRoute(1, "10.1.0.0", "255.255.0.0", "10.0.0.9", "custom");
  kest::cMsg tick("TIMER::ON-REFRESH");
  hal.Take();
  svc->OnRefresh(tick);  // no routing collection yet: nothing at all
  EXPECT_TRUE(hal.Take().empty());

  ReachConfigApplied({{"cfg", "10.10.0.0", "255.255.0.0", 4, "10.0.0.254"}});
  hal.answer["ConfigureIPGateway"] = -5;
  svc->OnRefresh(tick);
  EXPECT_EQ(hal.Take(),
            (Lines{"ConfigureIpDefaultGateway 10.0.0.1 3",
                   "ConfigureIPGateway 10.10.0.0 255.255.0.0 10.0.0.254 0.0.0.0 '' 0 1",
                   "ConfigureIPGateway 10.1.0.0 255.255.0.0 10.0.0.9 0.0.0.0 'eth1' 0 1"}));
  EXPECT_TRUE(Traces().empty());
}

TEST_F(ServiceTest, RefreshTimerFiresEveryFiveSecondsOnceAllIsUp) {
  ReachConfigApplied({{"cfg", "10.10.0.0", "255.255.0.0", 4, "10.0.0.254"}});
  kest::cMsg up("WATCHER::ALL-UP");
  svc->OnAllUp(up);
  EXPECT_EQ(Traces(), Lines{"All Connections UP"});
  for (int period = 0; period < 3; ++period) {
    clock.Advance(4999);
    kest::Loop().RunUntilIdle();
    EXPECT_TRUE(hal.Take().empty());
    clock.Advance(1);
    kest::Loop().RunUntilIdle();
    EXPECT_EQ(hal.Take().size(), 1u) << "period " << period;
  }
}

#include "routing/configured_route.h"
#include "service_fixture.h"

TEST(ConfiguredRequest, GatewayInterfaceMetricAndFlagBySelector) {
  cWanGateways gw;
  gw.wired = {{kest::s_socket_addr("192.168.1.1", 0), "wired", "eth1", NORMAL, 9}, true};
  gw.vpn = {{kest::s_socket_addr("10.8.0.1", 0), "vpn", "tun0", NORMAL, 7}, true};
  std::pair<std::uint8_t, char const*> const cases[] = {
      {0, "skipped"},
      {1, "192.168.1.1 'eth1' 0 1"},  // the gateway's priority is not the metric
      {2, "0.0.0.0 '' 0 0"},          // no gateway announced
      {3, "10.8.0.1 'tun0' 7 1"},
      {4, "192.168.5.254 '' 0 1"},
      {5, "skipped"},
      {255, "skipped"},
  };
  for (auto const& [selector, want] : cases) {
    dataIO::cDBConfigWanRoute route("r", "", kest::s_socket_addr("10.10.0.0", 0),
                                    kest::s_socket_addr("255.255.0.0", 0),
                                    kest::s_socket_addr("192.168.5.254", 0), selector, "");
    auto const req = ConfiguredRequest(gw, route);
    EXPECT_EQ(req ? kest::FormatString("%s '%s' %u %d", req->gateway.GetIPString().c_str(),
                                       req->ifname.c_str(), req->metric, req->gwAvail)
                  : "skipped",
              want)
        << int(selector);
  }
}

TEST_F(ServiceTest, ConfiguredRoutesAreRequestedInKeyOrderSkippingUnknownSelectors) {
  SetGw("wired", "192.168.1.1", NORMAL, 9, "eth1");
  ReachConfigApplied({});
  SyncRouting({
      {"a-wired", "10.10.3.4", "255.255.0.0", 1},
      {"b-none", "10.50.0.0", "255.255.0.0", 0},
      {"c-nine", "10.60.0.0", "255.255.0.0", 9},
      {"d-own", "10.40.0.0", "255.255.0.0", 4, "192.168.5.254"},
  });
  EXPECT_EQ(hal.Take(),
            (Lines{
                "ConfigureIPGateway 10.10.0.0 255.255.0.0 192.168.1.1 0.0.0.0 'eth1' 0 1",
                "ConfigureIPGateway 10.40.0.0 255.255.0.0 192.168.5.254 0.0.0.0 '' 0 1",
            }));
  Lines const traces = Traces();
  ASSERT_GE(traces.size(), 2u);
  // Skipped selectors still count.
  EXPECT_EQ(Lines(traces.end() - 2, traces.end()),
            (Lines{"SetRoutesByGw (_bNewVal:true, _bDelRoutes:false, bWiredAvail:true, "
                   "bWirelessAvail:false, bVPNAvail:false)",
                   "(try) setting 4 routes (OtherMapSize:0)"}));
}

// Every five seconds once all is up, everything again, in a fixed order and
// without a trace even when the HAL fails; nothing before the configuration.
TEST_F(ServiceTest, RefreshRequestsEverythingSilentlyEveryFiveSeconds) {
  SetGw("up", "10.0.0.1", DEFAULT, 3);
  SetRoute(1, "10.1.0.0", "255.255.0.0", "10.0.0.9", "custom");
  hal.Take();
  kest::cMsg up("WATCHER::ALL-UP"), tick("TIMER::ON-REFRESH");
  svc->OnRefresh(tick);  // no routing collection yet: nothing at all
  EXPECT_TRUE(hal.Take().empty());
  ReachConfigApplied({{"cfg", "10.10.0.0", "255.255.0.0", 4, "10.0.0.254"}});
  svc->OnAllUp(up);
  EXPECT_EQ(Traces(), Lines{"All Connections UP"});
  hal.answer["ConfigureIPGateway"] = -5;
  for (int period = 0; period < 3; ++period) {
    clock.Advance(4999);
    kest::Loop().RunUntilIdle();
    EXPECT_TRUE(hal.Take().empty());
    clock.Advance(1);
    kest::Loop().RunUntilIdle();
    EXPECT_EQ(hal.Take(),
              (Lines{"ConfigureIpDefaultGateway 10.0.0.1 3",
                     "ConfigureIPGateway 10.10.0.0 255.255.0.0 10.0.0.254 0.0.0.0 '' 0 1",
                     "ConfigureIPGateway 10.1.0.0 255.255.0.0 10.0.0.9 0.0.0.0 'eth1' 0 1"}))
        << "period " << period;
  }
  // Failures the service keeps quiet about are counted by the HAL client, said when the count
  // changes.
  Lines counted;
  for (auto const& r : capture.Records())
    if (r.module == "HAL") counted.push_back(r.level + " " + r.message);
  EXPECT_EQ(counted,
            (Lines{"005 refresh: 2 of 3 requests failed", "007 refresh: 2 of 3 requests failed",
                   "007 refresh: 2 of 3 requests failed"}));
  EXPECT_TRUE(Traces().empty());
}

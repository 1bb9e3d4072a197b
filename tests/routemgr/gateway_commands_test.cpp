#include "service_fixture.h"

TEST_F(ServiceTest, GatewayBeforeConfigurationTouchesOnlyDefaults) {
  auto r = SetGw("lan", "192.168.1.1", NORMAL);
  EXPECT_TRUE(r.success);
  EXPECT_TRUE(hal.Take().empty());
  EXPECT_EQ(Traces(),
            Lines{"Recieved SetGateway (IP:192.168.1.1, Tag:lan, IF:eth0, Type:2, Prio:0)"});

  SetGw("up", "10.0.0.1", DEFAULT, 5);
  EXPECT_EQ(hal.Take(), Lines{"ConfigureIpDefaultGateway 10.0.0.1 5"});

  // Replacing a default gateway by a normal one withdraws nothing.
  SetGw("up", "10.0.0.1", NORMAL, 5);
  EXPECT_TRUE(hal.Take().empty());

  EXPECT_EQ(svc->DelGateway("nobody").rc, 0);
  EXPECT_EQ(Traces().back(), "Recieved DelGateway (Tag:nobody)");

  // Only a default gateway's removal reaches the HAL.
  SetGw("def", "10.0.0.2", DEFAULT, 5);
  hal.Take();
  svc->DelGateway("lan");
  EXPECT_TRUE(hal.Take().empty());
  svc->DelGateway("def");
  EXPECT_EQ(hal.Take(), Lines{"RemoveIPDefaultGateway 10.0.0.2"});
  svc->DelGateway("up");
  EXPECT_TRUE(svc->Gateways().empty());
}

TEST_F(ServiceTest, GatewayChangeMovesConfiguredRoutes) {
  SetGw("wired", "192.168.1.1", NORMAL, 9, "eth1");
  ReachConfigApplied({{"office", "10.10.3.4", "255.255.0.0", 1}});

  // The delete pass sees the old wired gateway, the set pass the new one;
  // a default gateway is configured between the two.
  SetGw("wired", "192.168.2.1", DEFAULT, 9, "eth2");
  EXPECT_EQ(hal.Take(),
            (Lines{"RemoveIPGateway 10.10.0.0 255.255.0.0 192.168.1.1 1",
                   "ConfigureIpDefaultGateway 192.168.2.1 9",
                   "ConfigureIPGateway 10.10.0.0 255.255.0.0 192.168.2.1 0.0.0.0 'eth2' 0 1"}));

  svc->DelGateway("wired");
  EXPECT_EQ(hal.Take(), (Lines{"RemoveIPGateway 10.10.0.0 255.255.0.0 192.168.2.1 1",
                               "RemoveIPDefaultGateway 192.168.2.1",
                               "ConfigureIPGateway 10.10.0.0 255.255.0.0 0.0.0.0 0.0.0.0 '' 0 0"}));
}

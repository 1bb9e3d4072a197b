#include "service_fixture.h"

constexpr char kStatusDir[] = "/Status/Network/";

TEST_F(ServiceTest, WalksThroughTheDataStates) {
  ConnectData();  // A -> B
  EXPECT_EQ(data.Take(), Lines{std::string("Register ") + kStatusDir});

  SyncStatus("");  // B stays B: no setup known yet
  EXPECT_FALSE(svc->StatusReceived());
  EXPECT_TRUE(data.Take().empty());
  EXPECT_EQ(Traces(), Lines{"Received OnSync (WanStatus:true, RouteConfig:false)"});

  SyncStatus("dsl");  // B -> C
  EXPECT_TRUE(svc->StatusReceived());
  EXPECT_EQ(data.Take(),
            (Lines{"Deregister null", "Register /Config/Network/WanSetups/dsl/Routing/"}));
  EXPECT_EQ(Traces().back(), "Received Initial WanSetup - Registering RoutingCollection");

  SyncStatus("dsl");  // same name: nothing beyond the first trace
  EXPECT_EQ(Traces(), Lines{"Received OnSync (WanStatus:true, RouteConfig:false)"});
  EXPECT_TRUE(data.Take().empty());

  SyncRouting({{"office", "10.10.0.0", "255.255.0.0", 4, "10.0.0.254"}});  // C -> D
  EXPECT_TRUE(svc->ConfigReceived());
  EXPECT_EQ(hal.Take(),
            Lines{"ConfigureIPGateway 10.10.0.0 255.255.0.0 10.0.0.254 0.0.0.0 '' 0 1"});
  auto traces = Traces();
  ASSERT_EQ(traces.size(), 6u);
  EXPECT_EQ(traces[0], "Received OnSync (WanStatus:false, RouteConfig:true)");
  EXPECT_EQ(traces[1], "Received Routing CFG - Setting Routes ...");

  SyncRouting({{"office", "10.10.0.0", "255.255.0.0", 4, "10.0.0.254"}});  // unchanged
  EXPECT_TRUE(hal.Take().empty());
  EXPECT_EQ(Traces().size(), 1u);

  SyncRouting({{"office", "10.11.0.0", "255.255.0.0", 4, "10.0.0.254"}});  // D -> D
  EXPECT_EQ(hal.Take(),
            (Lines{"RemoveIPGateway 10.10.0.0 255.255.0.0 10.0.0.254 1",
                   "ConfigureIPGateway 10.11.0.0 255.255.0.0 10.0.0.254 0.0.0.0 '' 0 1"}));
  EXPECT_EQ(Traces()[1], "Routing Collection Changed - Deleting/Setting Routes");

  svc->OnDisconnect(&svc->DataClient());  // D -> A; configured routes stay
  EXPECT_EQ(data.Take(), (Lines{"Stop", std::string("Deregister ") + kStatusDir,
                                "Deregister /Config/Network/WanSetups/dsl/Routing/", "Start"}));
  EXPECT_TRUE(hal.Take().empty());
  EXPECT_FALSE(svc->StatusReceived() || svc->ConfigReceived());

  ConnectData();  // the next name counts as the initial one again
  SyncStatus("lte");
  EXPECT_EQ(Traces().back(), "Received Initial WanSetup - Registering RoutingCollection");
}

TEST_F(ServiceTest, WanSetupChangeSwapsTheConfiguredRoutes) {
  SetGw("wired", "192.168.1.1", NORMAL, 0, "eth1");
  ReachConfigApplied({{"office", "10.10.0.0", "255.255.0.0", 1}});

  SyncStatus("lte");  // D -> C
  EXPECT_FALSE(svc->ConfigReceived());
  EXPECT_EQ(hal.Take(), Lines{"RemoveIPGateway 10.10.0.0 255.255.0.0 192.168.1.1 1"});
  EXPECT_EQ(data.Take(), (Lines{"Deregister /Config/Network/WanSetups/dsl/Routing/",
                                "Register /Config/Network/WanSetups/lte/Routing/"}));
  EXPECT_EQ(Traces()[1], "Wan Setup Changed - Deleting Routes etc");

  SyncRouting({{"cloud", "172.20.0.0", "255.255.0.0", 1}});  // C -> D with the new setup
  EXPECT_EQ(hal.Take(),
            Lines{"ConfigureIPGateway 172.20.0.0 255.255.0.0 192.168.1.1 0.0.0.0 'eth1' 0 1"});
  EXPECT_EQ(Traces()[1], "Received Routing CFG - Setting Routes ...");
}

// A refused registration, of either collection, starts the data client over.
TEST_F(ServiceTest, RefusedRegistrationRestartsTheDataClient) {
  data.refuse = true;
  ConnectData();
  EXPECT_EQ(data.Take(), (Lines{"Register /Status/Network/ refused", "Stop", "Deregister null",
                                "Deregister null", "Start"}));
  EXPECT_EQ(svc->NetworkStatus(), nullptr);
  data.refuse = false;
  ConnectData();
  data.Take();
  data.refuse = true;
  SyncStatus("dsl");
  EXPECT_EQ(data.Take(),
            (Lines{"Deregister null", "Register /Config/Network/WanSetups/dsl/Routing/ refused",
                   "Stop", std::string("Deregister ") + kStatusDir, "Deregister null", "Start"}));
  EXPECT_FALSE(svc->StatusReceived());
  EXPECT_EQ(svc->NetworkStatus(), nullptr);
}

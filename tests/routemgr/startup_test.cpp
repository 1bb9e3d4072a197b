#include "service_fixture.h"

using Lines = std::vector<std::string>;

TEST_F(ServiceTest, MessageMapHoldsTheThreeEntries) {
  svc->InitMessageMap();
  Lines names;
  for (auto const& e : svc->MessageMap().Entries()) {
    names.push_back(e.name);
    EXPECT_EQ(e.channel, nullptr);
  }
  EXPECT_EQ(names, (Lines{"WATCHER::ALL-UP", "HAL::ON-CONNECT", "TIMER::ON-REFRESH"}));
}

TEST_F(ServiceTest, ConstructionStartsNothing) {
  EXPECT_TRUE(data.Take().empty());
  EXPECT_TRUE(Traces().empty());
  EXPECT_FALSE(svc->RefreshTimer().Running());
  EXPECT_FALSE(svc->RouteServer().IsReady());
}

TEST_F(ServiceTest, AllUpOnlyAfterBothClientsConnected) {
  testing::internal::CaptureStdout();
  svc->OnScmConnected();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "cRouteMgrService::connected to scm\n");
  EXPECT_EQ(data.Take(), Lines{"Start"});

  kest::cMsg halUp("HAL::ON-CONNECT");
  svc->ProcessMsg(halUp);
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(Traces(), Lines{"Hal Connected"});
  EXPECT_FALSE(svc->RouteServer().IsReady());

  ConnectData();
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(Traces(), Lines{"All Connections UP"});
  EXPECT_TRUE(svc->RouteServer().IsReady());
  EXPECT_TRUE(svc->RefreshTimer().Running());
}

TEST_F(ServiceTest, SystemStatusIsTracedVerbatim) {
  svc->OnSystemStatus("shutting down");
  EXPECT_EQ(Traces(), Lines{"system status=shutting down"});
}

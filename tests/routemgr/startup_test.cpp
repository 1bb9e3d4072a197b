#include "service_fixture.h"

TEST_F(ServiceTest, ServesRouteClientsAndRefreshesOnlyOnceBothClientsAreUp) {
  testing::internal::CaptureStdout();
  svc->OnScmConnected();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "cRouteMgrService::connected to scm\n");
  EXPECT_EQ(data.Take(), Lines{"Start"});

  kest::cMsg halUp("HAL::ON-CONNECT");
  svc->ProcessMsg(halUp);
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(Traces(), Lines{"Hal Connected"});
  EXPECT_FALSE(svc->RouteServer().IsReady());
  EXPECT_FALSE(svc->RefreshTimer().Running());

  ConnectData();
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(Traces(), Lines{"All Connections UP"});
  EXPECT_TRUE(svc->RouteServer().IsReady());
  EXPECT_TRUE(svc->RefreshTimer().Running());

  svc->OnSystemStatus("shutting down");
  EXPECT_EQ(Traces(), Lines{"system status=shutting down"});
}

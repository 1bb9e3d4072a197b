#include <gtest/gtest.h>

#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"

using namespace dataIO;

namespace {

cDBConfigWanRoute Route(const char* name, const char* net, std::uint8_t selector) {
  return cDBConfigWanRoute(name, "", kest::s_socket_addr(net, 0),
                           kest::s_socket_addr("255.255.0.0", 0), kest::s_socket_addr(), selector,
                           "");
}

cDBStatusWan Wan(const char* setup) {
  cDBStatusWan w;
  w.m_wanSetupName.Set(setup);
  return w;
}

kest::cSerializeBuffer Garbage() {
  const std::uint8_t bytes[] = {1, 1, 7, 1, 200, 0, 0, 0, 'x'};  // string longer than its bytes
  return kest::cSerializeBuffer(bytes, sizeof bytes);
}

}  // namespace

TEST(WanRoutingCollection, DirectoryOfTheSetup) {
  EXPECT_EQ(cDBWanRoutingCollection("home").GetDir(), "/Config/Network/WanSetups/home/Routing/");
  EXPECT_EQ(cDBWanRoutingCollection("").GetDir(), "/Config/Network/WanSetups//Routing/");
  EXPECT_FALSE(cDBWanRoutingCollection("x").IsSynced());
}

TEST(WanRoutingCollection, ReceivedAndInForceAcrossSynchronisations) {
  cDBWanRoutingCollection c("home");
  c.BeginSync();
  EXPECT_TRUE(c.ReceiveRecord(Route("b", "10.2.0.0", 2)));
  EXPECT_TRUE(c.ReceiveRecord(Route("a", "10.1.0.0", 1)));
  EXPECT_TRUE(c.HasChanged());
  EXPECT_TRUE(c.RoutesInForce().empty());
  ASSERT_EQ(c.RoutesReceived().size(), 2u);
  EXPECT_EQ(c.RoutesReceived().begin()->first, "a");
  EXPECT_EQ(c.RoutesReceived().at("b").m_network.GetIPString(), "10.2.0.0");
  EXPECT_EQ(c.RoutesReceived().at("b").GetDir(), c.GetDir());
  c.EndSync();
  EXPECT_EQ(c.RoutesInForce().size(), 2u);

  // Same content again: no change.
  c.BeginSync();
  EXPECT_TRUE(c.ReceiveRecord(Route("a", "10.1.0.0", 1)));
  EXPECT_FALSE(c.HasChanged());
  c.EndSync();

  // A changed selector and a removed entry are both changes; a broken record
  // is refused and leaves the received copy as it was.
  c.BeginSync();
  auto bad = Garbage();
  EXPECT_FALSE(c.ReceiveItem("a", bad));
  EXPECT_FALSE(c.HasChanged());
  EXPECT_TRUE(c.ReceiveRecord(Route("a", "10.1.0.0", 3)));
  c.RemoveItem("b");
  EXPECT_TRUE(c.HasChanged());
  EXPECT_EQ(c.RoutesInForce().at("a").m_gatewaySelector.Get(), 1);
  c.EndSync();
  EXPECT_EQ(c.RoutesInForce().size(), 1u);
  EXPECT_EQ(c.RoutesInForce().at("a").m_gatewaySelector.Get(), 3);
}

TEST(NetworkStatusCollection, WanSetupNamesAcrossSynchronisations) {
  cDBNetworkStatusCollection c;
  EXPECT_EQ(c.GetDir(), "/Status/Network/");
  c.BeginSync();
  EXPECT_TRUE(c.ReceiveRecord(Wan("home")));
  EXPECT_EQ(c.ReceivedWanSetupName(), "home");
  EXPECT_EQ(c.InForceWanSetupName(), "");
  EXPECT_TRUE(c.HasChanged());
  c.EndSync();

  c.BeginSync();
  auto bad = Garbage();
  EXPECT_FALSE(c.ReceiveItem("WanStatus", bad));
  EXPECT_EQ(c.ReceivedWanSetupName(), "home");
  auto any = Garbage();
  EXPECT_FALSE(c.ReceiveItem("NoSuchStatus", any));
  EXPECT_FALSE(c.HasChanged());
  cDBStatusConnection conn;
  conn.m_online.Set(true);
  EXPECT_TRUE(c.ReceiveRecord(conn));
  EXPECT_TRUE(c.HasChanged());
  EXPECT_TRUE(c.ReceivedConnectionStatus().m_online.Get());
  EXPECT_FALSE(c.InForceConnectionStatus().m_online.Get());
  c.EndSync();

  // Case matters; a removed record falls back to its defaults.
  c.BeginSync();
  EXPECT_TRUE(c.ReceiveRecord(Wan("Home")));
  EXPECT_TRUE(c.HasChanged());
  c.RemoveItem("WanStatus");
  EXPECT_EQ(c.ReceivedWanSetupName(), "");
  c.EndSync();
  EXPECT_EQ(c.InForceWanSetupName(), "");
}

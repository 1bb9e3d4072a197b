#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "datastore/records/db_config_wan_route.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"

using namespace dataIO;

namespace {

kest::s_socket_addr Ip(const char* text) { return kest::s_socket_addr(text, 0); }

// Every record filled with values that differ from its defaults, between
// them in members of every kind (a member left out of a record's member list
// shows in the size of its defaults below).
void Fill(cDBStatusConnection& r) { r.m_online.Set(true); }
void Fill(cDBStatusWan& r) {
  r.m_wanState.Set(3);
  r.m_wanSetupName.Set("home");
}
void Fill(cDBStatusWiredWan& r) {
  r.m_dhcpServer = Ip("192.168.1.1");
  r.m_rxBytes.Set(1ull << 40);
}
void Fill(cDBStatusWirelessWan& r) {
  r.m_roaming.Set(true);
  r.m_signalStrength.Set(-71);
}
void Fill(cDBStatusLan& r) {
  r.m_interfaces = {"lan1", "lan2"};
  r.m_leases[Ip("192.168.0.5")].m_hostName.Set("pc");
  r.m_leases[Ip("10.0.0.2")].m_macAddress.Set("00:11:22:33:44:55");
}
void Fill(cDBConfigWanRoute& r) {
  r = cDBConfigWanRoute("r1", "/d/", Ip("10.10.0.0"), Ip("255.255.0.0"), Ip("1.2.3.4"), 4, "x");
}

cDBConfigWanRoute Route(const char* name, const char* net, std::uint8_t selector,
                        const char* description = "") {
  return cDBConfigWanRoute(name, "", Ip(net), Ip("255.255.0.0"), Ip("0.0.0.0"), selector,
                           description);
}

kest::cSerializeBuffer Garbage() {  // a string longer than its bytes
  static const std::uint8_t bytes[] = {1, 1, 7, 1, 200, 0, 0, 0, 'x'};
  return kest::cSerializeBuffer(bytes, sizeof bytes);
}

template <typename R>
class RecordTest : public ::testing::Test {};
using Records = ::testing::Types<cDBStatusConnection, cDBStatusWan, cDBStatusWiredWan,
                                 cDBStatusWirelessWan, cDBStatusLan, cDBConfigWanRoute>;
TYPED_TEST_SUITE(RecordTest, Records);

}  // namespace

TYPED_TEST(RecordTest, RoundTripsAndRefusesAnyTruncationUntouched) {
  TypeParam sent, got;
  Fill(sent);
  ASSERT_FALSE(sent.Equals(TypeParam()));
  kest::cSerializeBuffer buf;
  ASSERT_TRUE(sent.Serialize(buf));
  ASSERT_TRUE(got.Deserialize(buf));
  EXPECT_TRUE(buf.AtEnd());
  EXPECT_TRUE(got.Equals(sent));
  for (std::size_t cut = 0; cut < buf.Bytes().size(); ++cut) {
    kest::cSerializeBuffer part(buf.Bytes().data(), cut);
    TypeParam target;
    EXPECT_FALSE(target.Deserialize(part)) << "cut at " << cut;
    EXPECT_TRUE(target.Equals(TypeParam())) << "cut at " << cut;
  }
}

// Every member with its default on the wire: one missing from the member
// list shows in the size.
TYPED_TEST(RecordTest, DefaultsOnTheWire) {
  static const std::map<std::string, std::size_t> want = {
      {"ConnectionStatus", 10},   {"WanStatus", 8},  {"WiredWanStatus", 89},
      {"WirelessWanStatus", 111}, {"LanStatus", 54}, {"", 29}};  // "": a routing entry
  TypeParam record;
  kest::cSerializeBuffer buf;
  ASSERT_TRUE(record.Serialize(buf));
  EXPECT_EQ(buf.Size(), want.at(record.GetName()));
}

TEST(Records, LayoutAndText) {
  EXPECT_EQ(cDBStatusLan().GetDir() + cDBStatusLan().GetName(), "/Status/Network/LanStatus");
  cDBStatusWan wan;
  Fill(wan);
  kest::cSerializeBuffer buf;
  wan.Serialize(buf);
  EXPECT_EQ(buf.Bytes(), (std::vector<std::uint8_t>{1, 1, 3, 1, 4, 0, 0, 0, 'h', 'o', 'm', 'e'}));
  EXPECT_EQ(wan.ToString(""), "WanStatus {3, \"home\"}");
  std::pair<cDBConfigWanRoute, char const*> const routes[] = {
      {Route("office", "10.10.0.0", kGwSelectorWired, "office LAN"),
       "10.10.0.0/255.255.0.0 via wired (gw 0.0.0.0) \"office LAN\""},
      {Route("o", "10.10.0.0", 9), "10.10.0.0/255.255.0.0 via nothing (selector 9) (gw 0.0.0.0)"}};
  for (auto const& [route, text] : routes) EXPECT_EQ(route.ToString(""), text);
}

// What a synchronisation received is in force only once it ends; the same
// content again is no change; a broken record is refused and leaves the
// received copy as it was; a removed one falls back to its defaults.
TEST(Collections, ReceivedAndInForceAcrossSynchronisations) {
  cDBWanRoutingCollection routing("home");
  cDBNetworkStatusCollection status;
  cDBStatusWan wan;
  wan.m_wanSetupName.Set("home");
  routing.BeginSync();
  status.BeginSync();
  EXPECT_TRUE(routing.ReceiveRecord(Route("b", "10.2.0.0", 2)) &&
              routing.ReceiveRecord(Route("a", "10.1.0.0", 1)) && status.ReceiveRecord(wan));
  EXPECT_TRUE(routing.HasChanged() && routing.RoutesInForce().empty() && status.HasChanged());
  EXPECT_EQ(status.ReceivedWanSetupName() + "|" + status.InForceWanSetupName(), "home|");
  routing.EndSync();
  status.EndSync();
  EXPECT_EQ(routing.RoutesInForce().size(), 2u);
  routing.BeginSync();
  status.BeginSync();
  EXPECT_TRUE(routing.ReceiveRecord(Route("a", "10.1.0.0", 1)));
  auto bad = Garbage(), alsoBad = Garbage();
  EXPECT_FALSE(routing.ReceiveItem("a", bad) || status.ReceiveItem("WanStatus", alsoBad));
  EXPECT_FALSE(routing.HasChanged() || status.HasChanged());
  EXPECT_EQ(status.ReceivedWanSetupName(), "home");
  EXPECT_TRUE(routing.ReceiveRecord(Route("a", "10.1.0.0", 3)));  // a changed selector
  EXPECT_TRUE(routing.HasChanged());
  routing.EndSync();
  status.EndSync();
  ASSERT_EQ(routing.RoutesInForce().size(), 2u);
  EXPECT_EQ(routing.RoutesInForce().at("a").m_gatewaySelector.Get(), 3);
  status.BeginSync();
  status.RemoveItem("WanStatus");
  status.EndSync();
  EXPECT_EQ(status.InForceWanSetupName(), "");
}

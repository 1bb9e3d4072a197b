#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "datastore/records/db_config_wan_route.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"

using namespace dataIO;
using Bytes = std::vector<std::uint8_t>;

namespace {

kest::s_socket_addr Ip(const char* text) { return kest::s_socket_addr(text, 0); }

leaseEntry Lease(const char* host) {
  leaseEntry e;
  e.m_hostName.Set(host);
  e.m_leaseState.Set(2);
  e.m_macAddress.Set("00:11:22:33:44:55");
  return e;
}

// Every record filled with values that differ from its defaults, in members of every kind.
void Fill(cDBStatusConnection& r) {
  r.m_online.Set(true);
  r.m_activeWan.Set(2);
  r.m_onlineSeconds.Set(99999);
}
void Fill(cDBStatusWan& r) {
  r.m_wanState.Set(3);
  r.m_wanSetupName.Set("home");
}
void Fill(cDBStatusWiredWan& r) {
  r.m_linkState.Set(1);
  r.m_cablePlugged.Set(true);
  r.m_dhcpEnabled.Set(false);
  r.m_interfaceName.Set("eth1");
  r.m_ipAddress = Ip("192.168.1.2");
  r.m_dns2 = Ip("8.8.4.4");
  r.m_dhcpServer = Ip("192.168.1.1");
  r.m_mtu.Set(1492);
  r.m_searchDomains = {"b.lan", "a.lan"};
  r.m_rxBytes.Set(1ull << 40);
  r.m_addressSource.Set(7);
  r.m_leases[Ip("10.0.0.9")] = Lease("nine");
  r.m_leases[Ip("10.0.0.2")] = Lease("two");
}
void Fill(cDBStatusWirelessWan& r) {
  r.m_roaming.Set(true);
  r.m_signalStrength.Set(-71);
  r.m_signalToNoise.Set(12);
  r.m_iccid.Set("8949");
  r.m_dns = Ip("1.1.1.1");
  r.m_apn.Set("internet");
  r.m_txBytes.Set(5);
  r.m_modemFirmware.Set("fw 2");
  r.m_registrationState.Set(5);
  r.m_lastError.Set("none");
}
void Fill(cDBStatusLan& r) {
  r.m_linkUp.Set(true);
  r.m_interfaces = {"lan1", "lan2"};
  r.m_netmask = Ip("255.255.255.0");
  r.m_hostName.Set("router");
  r.m_leaseCount.Set(1);
  r.m_leases[Ip("192.168.0.5")] = Lease("pc");
}
void Fill(cDBConfigWanRoute& r) {
  r = cDBConfigWanRoute("r1", "/d/", Ip("10.10.0.0"), Ip("255.255.0.0"), Ip("1.2.3.4"), 4, "x");
}

cDBConfigWanRoute Route(const char* name, const char* net, std::uint8_t selector) {
  return cDBConfigWanRoute(name, "", Ip(net), Ip("255.255.0.0"), Ip("0.0.0.0"), selector, "");
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

TYPED_TEST(RecordTest, RoundTripsEveryMemberAndRefusesAnyTruncationUntouched) {
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

// Every member in wire order with its default: one missing from the member
// list, or a default changed, shows in the text and the size on the wire.
TYPED_TEST(RecordTest, DefaultsInTextAndOnTheWire) {
  static const std::map<std::string, std::pair<std::string, std::size_t>> want = {
      {"ConnectionStatus", {"{false, 0, 0}", 10}},
      {"WanStatus", {"{0, \"\"}", 8}},
      {"WiredWanStatus",
       {"{0, false, true, \"\", 0.0.0.0:0, 0.0.0.0:0, 0.0.0.0:0, 0.0.0.0:0, "
        "0.0.0.0:0, 0.0.0.0:0, 1500, 0, {}, 0, 0, 0, 0, {}}",
        89}},
      {"WirelessWanStatus",
       {"{0, false, false, 65408, 65408, 65408, \"\", \"\", \"\", \"\", "
        "0.0.0.0:0, 0.0.0.0:0, 0.0.0.0:0, 0.0.0.0:0, \"\", \"\", 0, 0, "
        "\"\", \"\", 0, \"\", \"\"}",
        111}},
      {"LanStatus", {"{false, 0, {}, 0, 0, 0.0.0.0:0, 0.0.0.0:0, \"\", 0, 0, {}}", 54}},
      {"", {"0.0.0.0/0.0.0.0 via nothing (selector 0) (gw 0.0.0.0)", 29}},  // a routing entry
  };
  TypeParam record;
  auto const& [text, size] = want.at(record.GetName());
  EXPECT_EQ(record.ToString(""), record.GetName().empty() ? text : record.GetName() + " " + text);
  kest::cSerializeBuffer buf;
  ASSERT_TRUE(record.Serialize(buf));
  EXPECT_EQ(buf.Size(), size);
}

TEST(Records, LayoutAndText) {
  EXPECT_EQ(cDBStatusLan().GetDir() + cDBStatusLan().GetName(), "/Status/Network/LanStatus");
  cDBStatusWan wan;
  Fill(wan);
  kest::cSerializeBuffer buf;
  wan.Serialize(buf);
  EXPECT_EQ(buf.Bytes(), (Bytes{1, 1, 3, 1, 4, 0, 0, 0, 'h', 'o', 'm', 'e'}));
  EXPECT_EQ(wan.ToString(""), "WanStatus {3, \"home\"}");

  cDBConfigWanRoute r("office", "/d/", Ip("10.10.0.0"), Ip("255.255.0.0"), Ip("0.0.0.0"),
                      kGwSelectorWired, "office LAN");
  EXPECT_EQ(r.ToString(""), "10.10.0.0/255.255.0.0 via wired (gw 0.0.0.0) \"office LAN\"");
  r.m_gatewaySelector.Set(kGwSelectorOwn);
  r.m_gateway = Ip("10.0.0.1");
  r.m_description.Set("");
  EXPECT_EQ(r.ToString(""), "10.10.0.0/255.255.0.0 via own gateway (gw 10.0.0.1)");
  r.m_gatewaySelector.Set(9);
  EXPECT_EQ(r.ToString(""), "10.10.0.0/255.255.0.0 via nothing (selector 9) (gw 10.0.0.1)");
}

TEST(WanRoutingCollection, ReceivedAndInForceAcrossSynchronisations) {
  EXPECT_EQ(cDBWanRoutingCollection("").GetDir(), "/Config/Network/WanSetups//Routing/");
  cDBWanRoutingCollection c("home");
  EXPECT_EQ(c.GetDir(), "/Config/Network/WanSetups/home/Routing/");
  EXPECT_FALSE(c.IsSynced());
  c.BeginSync();
  EXPECT_TRUE(c.ReceiveRecord(Route("b", "10.2.0.0", 2)));
  EXPECT_TRUE(c.ReceiveRecord(Route("a", "10.1.0.0", 1)));
  EXPECT_TRUE(c.HasChanged());
  EXPECT_TRUE(c.RoutesInForce().empty());
  ASSERT_EQ(c.RoutesReceived().size(), 2u);
  EXPECT_EQ(c.RoutesReceived().at("b").m_network.GetIPString(), "10.2.0.0");
  EXPECT_EQ(c.RoutesReceived().at("b").GetDir(), c.GetDir());
  c.EndSync();
  EXPECT_EQ(c.RoutesInForce().size(), 2u);

  c.BeginSync();  // the same content again is no change
  EXPECT_TRUE(c.ReceiveRecord(Route("a", "10.1.0.0", 1)));
  EXPECT_FALSE(c.HasChanged());
  c.EndSync();

  // A changed selector and a removed entry are both changes; a broken record is refused
  // and leaves the received copy as it was.
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
  cDBStatusWan wan;
  wan.m_wanSetupName.Set("home");
  c.BeginSync();
  EXPECT_TRUE(c.ReceiveRecord(wan));
  EXPECT_EQ(c.ReceivedWanSetupName(), "home");
  EXPECT_EQ(c.InForceWanSetupName(), "");
  EXPECT_TRUE(c.HasChanged());
  c.EndSync();

  c.BeginSync();
  for (const char* name : {"WanStatus", "NoSuchStatus"}) {
    auto bad = Garbage();
    EXPECT_FALSE(c.ReceiveItem(name, bad)) << name;
  }
  EXPECT_EQ(c.ReceivedWanSetupName(), "home");
  EXPECT_FALSE(c.HasChanged());
  cDBStatusConnection conn;
  conn.m_online.Set(true);
  EXPECT_TRUE(c.ReceiveRecord(conn));
  EXPECT_TRUE(c.HasChanged());
  EXPECT_TRUE(c.ReceivedConnectionStatus().m_online.Get());
  EXPECT_FALSE(c.InForceConnectionStatus().m_online.Get());
  c.EndSync();

  c.BeginSync();  // case matters; a removed record falls back to its defaults
  wan.m_wanSetupName.Set("Home");
  EXPECT_TRUE(c.ReceiveRecord(wan));
  EXPECT_TRUE(c.HasChanged());
  c.RemoveItem("WanStatus");
  EXPECT_EQ(c.ReceivedWanSetupName(), "");
  c.EndSync();
  EXPECT_EQ(c.InForceWanSetupName(), "");
}

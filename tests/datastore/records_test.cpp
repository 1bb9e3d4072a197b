#include <gtest/gtest.h>

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

// Every record filled with values that differ from its defaults, in every member.
void Fill(cDBStatusConnection& r) { r.m_online.Set(true); r.m_activeWan.Set(2); r.m_onlineSeconds.Set(99999); }
void Fill(cDBStatusWan& r) { r.m_wanState.Set(3); r.m_wanSetupName.Set("home"); }
void Fill(cDBStatusWiredWan& r) {
  r.m_linkState.Set(1); r.m_cablePlugged.Set(true); r.m_dhcpEnabled.Set(false);
  r.m_interfaceName.Set("eth1"); r.m_ipAddress = Ip("192.168.1.2"); r.m_dns2 = Ip("8.8.4.4");
  r.m_dhcpServer = Ip("192.168.1.1"); r.m_mtu.Set(1492); r.m_searchDomains = {"b.lan", "a.lan"};
  r.m_rxBytes.Set(1ull << 40); r.m_addressSource.Set(7);
  r.m_leases[Ip("10.0.0.9")] = Lease("nine"); r.m_leases[Ip("10.0.0.2")] = Lease("two");
}
void Fill(cDBStatusWirelessWan& r) {
  r.m_roaming.Set(true); r.m_signalStrength.Set(-71); r.m_signalToNoise.Set(12);
  r.m_iccid.Set("8949"); r.m_dns = Ip("1.1.1.1"); r.m_apn.Set("internet");
  r.m_txBytes.Set(5); r.m_modemFirmware.Set("fw 2"); r.m_registrationState.Set(5);
  r.m_lastError.Set("none");
}
void Fill(cDBStatusLan& r) {
  r.m_linkUp.Set(true); r.m_interfaces = {"lan1", "lan2"}; r.m_netmask = Ip("255.255.255.0");
  r.m_hostName.Set("router"); r.m_leaseCount.Set(1); r.m_leases[Ip("192.168.0.5")] = Lease("pc");
}
void Fill(cDBConfigWanRoute& r) {
  r = cDBConfigWanRoute("r1", "/d/", Ip("10.10.0.0"), Ip("255.255.0.0"), Ip("1.2.3.4"), 4, "x");
}

template <typename R>
class RecordTest : public ::testing::Test {};
using Records = ::testing::Types<cDBStatusConnection, cDBStatusWan, cDBStatusWiredWan,
                                 cDBStatusWirelessWan, cDBStatusLan, cDBConfigWanRoute>;
TYPED_TEST_SUITE(RecordTest, Records);

}  // namespace

TYPED_TEST(RecordTest, RoundTripsEveryMemberAndRejectsBrokenBytesWhole) {
  TypeParam sent;
  Fill(sent);
  ASSERT_FALSE(sent.Equals(TypeParam()));
  kest::cSerializeBuffer buf;
  ASSERT_TRUE(sent.Serialize(buf));
  TypeParam got;
  ASSERT_TRUE(got.Deserialize(buf));
  EXPECT_TRUE(buf.AtEnd());
  EXPECT_TRUE(got.Equals(sent));
  EXPECT_EQ(got.ToString(""), sent.ToString(""));

  // Any truncation is refused without touching the record.
  const Bytes full = buf.Bytes();
  for (std::size_t cut = 0; cut < full.size(); ++cut) {
    kest::cSerializeBuffer part(full.data(), cut);
    TypeParam target;
    EXPECT_FALSE(target.Deserialize(part)) << "cut at " << cut;
    EXPECT_TRUE(target.Equals(TypeParam())) << "cut at " << cut;
  }
}

TEST(StatusRecords, DefaultsNamesAndLayout) {
  EXPECT_EQ(cDBStatusWiredWan().m_mtu.Get(), 1500);
  EXPECT_TRUE(cDBStatusWiredWan().m_dhcpEnabled.Get());
  EXPECT_EQ(cDBStatusWirelessWan().m_signalStrength.Get(), -128);
  const cDBStatusLan lan;
  EXPECT_EQ(lan.GetName(), "LanStatus");
  EXPECT_EQ(lan.GetDir(), "/Status/Network/");
  EXPECT_EQ(cDBStatusWan().WanSetupName(), "");

  cDBStatusWan wan;
  Fill(wan);
  kest::cSerializeBuffer buf;
  wan.Serialize(buf);
  EXPECT_EQ(buf.Bytes(), (Bytes{1, 1, 3, 1, 4, 0, 0, 0, 'h', 'o', 'm', 'e'}));
  EXPECT_EQ(wan.ToString(""), "WanStatus {3, \"home\"}");
}

TEST(ConfigWanRoute, ReadableText) {
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

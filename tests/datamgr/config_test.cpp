#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "config_json.h"
#include "datactl_cli.h"
#include "store.h"

namespace datamgr {
namespace {

TEST(DeviceConfig, TheShippedExampleLoads) {
  cDeviceConfig cfg;
  std::string error;
  ASSERT_TRUE(LoadDeviceConfig(EXAMPLE_CONFIG, cfg, error)) << error;
  EXPECT_EQ(cfg.wan.WanSetupName(), "dsl");
  EXPECT_EQ(cfg.wanSetups.size(), 3u);
  ASSERT_EQ(cfg.wanSetups.at("dsl").size(), 4u);
  auto const& mgmt = cfg.wanSetups.at("dsl").at("mgmt");
  EXPECT_EQ(mgmt.GetDir(), "/Config/Network/WanSetups/dsl/Routing/");
  EXPECT_EQ(mgmt.GetName(), "mgmt");
  EXPECT_EQ(mgmt.ToString(""),
            "192.168.50.0/255.255.255.0 via own gateway (gw 192.168.1.254) \"management network "
            "behind the DSL modem\"");
  EXPECT_EQ(cfg.wanSetups.at("dsl").at("backup").m_gatewaySelector.Get(), 2);
  EXPECT_EQ(cfg.wiredWan.m_mtu.Get(), 1492);

  Store const store = BuildStore(cfg);
  EXPECT_EQ(store.at("/Status/Network/").size(), 5u);
  EXPECT_EQ(store.at("/Config/Network/WanSetups/lte/Routing/").size(), 2u);
}

TEST(DeviceConfig, BadFilesAreRefusedWithWhereAndWhy) {
  struct Case {
    char const* text;
    char const* error;
  } const cases[] = {
      {"{\n  \"status\": {\n    \"wanSetup\": \"dsl\",\n  }\n}\n",
       ":4:3: syntax error while parsing object key - unexpected '}'"},
      {"{\n  \"status\": {\"wanSetup\": \"dsl\"}\n", ":3:1: syntax error"},
      {"", ":1:1: syntax error"},
      {"[]", "top level: must be an object"},
      {"{\"statuz\": {}}", "statuz: unknown key"},
      {"{\"status\": {\"wanSetup\": 3}}", "status/wanSetup: must be a string"},
      {"{\"status\": {\"wiredWan\": {\"mtu\": 70000}}}",
       "status/wiredWan/mtu: must be a whole number from 0 to 65535"},
      {"{\"wanSetups\": {\"dsl\": {\"routing\": {\"a\": {\"network\": \"10.0.0.0\", \"netmask\": "
       "\"255.0.0.0\", \"via\": \"cable\"}}}}}",
       "wanSetups/dsl/routing/a/via: \"cable\" is none of wired, wireless, vpn, own"},
      {"{\"wanSetups\": {\"dsl\": {\"routing\": {\"a\": {\"network\": \"10.0.0.0\", \"netmask\": "
       "\"255.0.0.0\", \"via\": \"own\"}}}}}",
       "wanSetups/dsl/routing/a: via \"own\" needs a \"gateway\""},
      {"{\"wanSetups\": {\"dsl\": {\"routing\": {\"a\": {\"network\": \"10.0.0.300\", "
       "\"netmask\": \"255.0.0.0\", \"via\": \"vpn\"}}}}}",
       "wanSetups/dsl/routing/a/network: \"10.0.0.300\" is not a dotted IPv4 address"},
      {"{\"wanSetups\": {\"dsl\": {\"routing\": {\"a\": {\"network\": \"10.0.0.0\", \"netmask\": "
       "\"255.0.255.0\", \"via\": \"vpn\"}}}}}",
       "wanSetups/dsl/routing/a/netmask: is not a contiguous netmask"},
  };
  std::string const path = testing::TempDir() + "datamgr_bad.json";
  for (auto const& c : cases) {
    std::ofstream(path) << c.text;
    cDeviceConfig cfg;
    cfg.wan.m_wanSetupName.Set("kept");
    std::string error;
    EXPECT_FALSE(LoadDeviceConfig(path, cfg, error)) << c.text;
    EXPECT_EQ(error.rfind(path, 0), 0u) << error;
    EXPECT_NE(error.find(c.error), std::string::npos) << "got: " << error;
    EXPECT_EQ(cfg.wan.WanSetupName(), "kept");
  }
  std::remove(path.c_str());
}

TEST(DeviceConfig, PrefixesInBothForms) {
  struct Case {
    char const* text;
    bool ok;
    std::uint32_t network, netmask;
  } const cases[] = {
      {"10.10.0.0/16", true, 0x0A0A0000, 0xFFFF0000},
      {"10.10.0.0/255.255.0.0", true, 0x0A0A0000, 0xFFFF0000},
      {"0.0.0.0/0", true, 0, 0},
      {"1.2.3.4/32", true, 0x01020304, 0xFFFFFFFF},
      {"10.0.0.0/33", false, 0, 0},
      {"10.0.0.0/255.0.255.0", false, 0, 0},
      {"10.0.0.0", false, 0, 0},
      {"10.0.0/8", false, 0, 0},
  };
  for (auto const& c : cases) {
    std::uint32_t net = 0, mask = 0;
    std::string error;
    EXPECT_EQ(ParsePrefix(c.text, net, mask, error), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(net, c.network) << c.text;
      EXPECT_EQ(mask, c.netmask) << c.text;
    }
  }
}

TEST(Datactl, CommandLines) {
  struct Case {
    std::vector<std::string> args;
    char const* error;  // nullptr: accepted
  } const cases[] = {
      {{"set-wan-setup", "lte"}, nullptr},
      {{"--server", "unix:/run/dm.sock", "list"}, nullptr},
      {{"route-set", "dsl", "k", "10.0.0.0/8", "via", "vpn", "desc", "a b"}, nullptr},
      {{"route-set", "dsl", "k", "10.0.0.0/8", "via", "192.168.1.1"}, nullptr},
      {{"route-set", "dsl", "k", "10.0.0.0/8", "via", "modem"}, "neither wired, wireless, vpn"},
      {{"route-set", "dsl", "k", "10.0.0.0/8", "through", "vpn"}, "expected SETUP KEY"},
      {{"route-del", "dsl"}, "wrong number of arguments"},
      {{"--server", "nowhere", "list"}, "--server"},
      {{"frobnicate"}, "unknown command"},
      {{}, "no command"},
  };
  for (auto const& c : cases) {
    std::string server, error;
    ctl::cRequest req;
    bool help = false;
    bool const ok = ParseDatactlArgs(c.args, server, req, help, error);
    EXPECT_EQ(ok, c.error == nullptr) << (c.args.empty() ? "" : c.args[0]) << ": " << error;
    if (c.error != nullptr) {
      EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
  }
  std::string server, error;
  ctl::cRequest req;
  bool help = false;
  ASSERT_TRUE(ParseDatactlArgs({"route-set", "dsl", "k", "10.0.0.0/8", "via", "192.168.1.1"},
                               server, req, help, error));
  EXPECT_EQ(server, "127.0.0.1:3711");
  EXPECT_EQ(req.selector, 4);
  EXPECT_EQ(req.gateway, 0xC0A80101u);
}

}  // namespace
}  // namespace datamgr

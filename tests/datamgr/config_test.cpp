#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>

#include "config_json.h"
#include "datactl_cli.h"
#include "store.h"

namespace datamgr {
namespace {

TEST(DeviceConfig, BadFilesAreRefusedWithWhereAndWhy) {
  struct Case {
    char const* text;
    char const* error;
  } const cases[] = {
      {"{\n  \"status\": {\n    \"wanSetup\": \"dsl\",\n  }\n}\n",
       ":4:3: syntax error while parsing object key - unexpected '}'"},
      {"{\"status\": {\"wanSetup\": 3}}", "status/wanSetup: must be a string"},
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
    SCOPED_TRACE(c.text);
    std::ofstream(path) << c.text;
    cDeviceConfig cfg;
    std::string error;
    EXPECT_FALSE(LoadDeviceConfig(path, cfg, error));
    EXPECT_EQ(error.rfind(path, 0), 0u) << error;
    EXPECT_NE(error.find(c.error), std::string::npos) << "got: " << error;
  }
  std::remove(path.c_str());
}

// What a reload pushes: the directories that changed, each with what changed in it.
TEST(Store, OnlyWhatChangedIsInTheDiff) {
  cDeviceConfig before;
  std::string error;
  ASSERT_TRUE(LoadDeviceConfig(EXAMPLE_CONFIG, before, error)) << error;
  std::pair<std::function<void(cDeviceConfig&)>, char const*> const cases[] = {
      {[](cDeviceConfig&) {}, ""},
      {[](cDeviceConfig& c) { c.wan.m_wanSetupName.Set("lte"); }, "/Status/Network/: +WanStatus\n"},
      {[](cDeviceConfig& c) {
         c.wanSetups.at("lte").erase("provider");
         c.wanSetups["lte"].insert_or_assign("new",
                                             MakeRoute("lte", "new", 1, 0xFF000000, 1, 0, ""));
       },
       "/Config/Network/WanSetups/lte/Routing/: +new -provider\n"},
      {[](cDeviceConfig& c) { c.wanSetups.erase("fibre"); },
       "/Config/Network/WanSetups/fibre/Routing/: -office\n"},
  };
  for (auto const& [change, diff] : cases) {
    cDeviceConfig after = before;
    change(after);
    std::string text;
    for (auto const& sync : DiffStores(BuildStore(before), BuildStore(after))) {
      text += sync.dir + ":";
      for (auto const& e : sync.entries) text += (e.remove ? " -" : " +") + e.name;
      text += "\n";
    }
    EXPECT_EQ(text, diff);
  }
}

TEST(Datactl, CommandLinesAndPrefixes) {
  struct Case {
    std::vector<std::string> args;
    char const* error;  // nullptr: accepted
  } const cases[] = {
      {{"set-wan-setup", "lte"}, nullptr},
      {{"route-set", "dsl", "k", "10.0.0.0/8", "via", "vpn", "desc", "a b"}, nullptr},
      {{"route-set", "dsl", "k", "10.0.0.0/33", "via", "vpn"}, "\"33\" is no prefix length"},
      {{"route-set", "dsl", "k", "10.0.0.0/255.0.255.0", "via", "vpn"}, "not a contiguous netmask"},
      {{"route-set", "dsl", "k", "10.0.0.0/8", "via", "modem"}, "neither wired, wireless, vpn"},
      {{"route-set", "dsl", "k", "10.0.0.0/8", "through", "vpn"}, "expected SETUP KEY"},
      {{"frobnicate"}, "unknown command"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    std::string error;
    ctl::cRequest req;
    EXPECT_EQ(ParseDatactlCommand(c.args, req, error), c.error == nullptr) << error;
    EXPECT_TRUE(c.error == nullptr || error.find(c.error) != std::string::npos) << error;
  }
  std::string error;
  ctl::cRequest req;
  ASSERT_TRUE(ParseDatactlCommand({"route-set", "dsl", "k", "10.9.0.0/16", "via", "192.168.1.1"},
                                  req, error));
  EXPECT_EQ(req.network, 0x0A090000u);
  EXPECT_EQ(req.netmask, 0xFFFF0000u);
  EXPECT_EQ(req.selector, 4);
  EXPECT_EQ(req.gateway, 0xC0A80101u);
}

}  // namespace
}  // namespace datamgr

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <tuple>

#include "config_json.h"
#include "datactl_cli.h"
#include "store.h"

namespace datamgr {
namespace {

TEST(DeviceConfig, BadFilesAreRefusedWithWhereAndWhy) {
  auto route = [](std::string const& fields) {
    return R"({"wanSetups": {"dsl": {"routing": {"a": {)" + fields + "}}}}}";
  };
  std::pair<std::string, char const*> const cases[] = {
      {"{\n  \"status\": {\n    \"wanSetup\": \"dsl\",\n  }\n}\n",
       ":4:3: syntax error while parsing object key - unexpected '}'"},
      {R"({"status": {"wanSetup": 3}})", "status/wanSetup: must be a string"},
      {route(R"("network": "10.0.0.0", "netmask": "255.0.0.0", "via": "cable")"),
       "wanSetups/dsl/routing/a/via: \"cable\" is none of wired, wireless, vpn, own"},
      {route(R"("network": "10.0.0.0", "netmask": "255.0.0.0", "via": "own")"),
       "wanSetups/dsl/routing/a: via \"own\" needs a \"gateway\""},
      {route(R"("network": "10.0.0.300", "netmask": "255.0.0.0", "via": "vpn")"),
       "wanSetups/dsl/routing/a/network: \"10.0.0.300\" is not a dotted IPv4 address"},
      {route(R"("network": "10.0.0.0", "netmask": "255.0.255.0", "via": "vpn")"),
       "wanSetups/dsl/routing/a/netmask: is not a contiguous netmask"},
  };
  std::string const path = testing::TempDir() + "datamgr_bad.json";
  for (auto const& [text, reason] : cases) {
    SCOPED_TRACE(text);
    std::ofstream(path) << text;
    cDeviceConfig cfg;
    std::string error;
    EXPECT_FALSE(LoadDeviceConfig(path, cfg, error));
    EXPECT_EQ(error.rfind(path, 0), 0u) << error;
    EXPECT_NE(error.find(reason), std::string::npos) << "got: " << error;
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
  std::pair<std::vector<std::string>, char const*> const cases[] = {
      // nullptr: accepted
      {{"route-set", "dsl", "k", "10.0.0.0/8", "via", "vpn", "desc", "a b"}, nullptr},
      {{"route-set", "dsl", "k", "10.0.0.0/33", "via", "vpn"}, "\"33\" is no prefix length"},
      {{"route-set", "dsl", "k", "10.0.0.0/8", "via", "modem"}, "neither wired, wireless, vpn"},
      {{"route-set", "dsl", "k", "10.0.0.0/8", "through", "vpn"}, "expected SETUP KEY"},
      {{"frobnicate"}, "unknown command"},
  };
  for (auto const& [args, reason] : cases) {
    SCOPED_TRACE(testing::PrintToString(args));
    std::string error;
    ctl::cRequest req;
    EXPECT_EQ(ParseDatactlCommand(args, req, error), reason == nullptr) << error;
    EXPECT_TRUE(reason == nullptr || error.find(reason) != std::string::npos) << error;
  }
  std::string error;
  ctl::cRequest req;
  ASSERT_TRUE(ParseDatactlCommand({"route-set", "dsl", "k", "10.9.0.0/16", "via", "192.168.1.1"},
                                  req, error));
  EXPECT_EQ(std::make_tuple(req.network, req.netmask, int(req.selector), req.gateway),
            std::make_tuple(0x0A090000u, 0xFFFF0000u, 4, 0xC0A80101u));  // selector 4: own
}

}  // namespace
}  // namespace datamgr

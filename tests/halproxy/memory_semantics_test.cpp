// The proxy's route semantics on the in-memory table: what a sequence of HAL
// requests leaves in the table, read back as the proxy lists it.
#include <gtest/gtest.h>

#include <cerrno>
#include <ostream>
#include <string>
#include <vector>

#include "hal/hal_protocol.h"
#include "memory_backend.h"
#include "proxy.h"

namespace halproxy {
namespace {

using hal::cHalRequest;
namespace halop = hal::halop;

cHalRequest Set(std::string net, std::string mask, std::string gw, std::string dev,
                unsigned metric = 0, bool avail = true, std::string src = "0.0.0.0") {
  cHalRequest r;
  r.op = halop::kConfigureIPGateway;
  r.network = net;
  r.netmask = mask;
  r.gateway = gw;
  r.source = src;
  r.ifname = dev;
  r.metric = metric;
  r.gwAvailable = avail;
  return r;
}

cHalRequest Del(std::string net, std::string mask, std::string gw, bool avail = true) {
  cHalRequest r;
  r.op = halop::kRemoveIPGateway;
  r.network = net;
  r.netmask = mask;
  r.gateway = gw;
  r.gwAvailable = avail;
  return r;
}

cHalRequest Default(std::string gw, unsigned metric) {
  cHalRequest r;
  r.op = halop::kConfigureIpDefaultGateway;
  r.gateway = gw;
  r.metric = metric;
  return r;
}

cHalRequest NoDefault(std::string gw) {
  cHalRequest r;
  r.op = halop::kRemoveIPDefaultGateway;
  r.gateway = gw;
  return r;
}

struct Step {
  cHalRequest req;
  int rc;
};

struct Case {
  char const* name;
  eUnavailable unavailable;
  std::vector<Step> steps;
  std::vector<std::string> table;
};

void PrintTo(Case const& c, std::ostream* os) { *os << c.name; }

class MemorySemantics : public ::testing::TestWithParam<Case> {};

TEST_P(MemorySemantics, TableAfterRequests) {
  Case const& c = GetParam();
  cMemoryBackend backend({"eth0", "eth1", "wlan0"});
  cHalProxy proxy(backend, c.unavailable);
  std::vector<std::string> lines;
  std::string detail;
  for (auto const& step : c.steps) {
    EXPECT_EQ(step.rc, proxy.Execute(step.req, lines, detail))
        << hal::Describe(step.req) << " (" << detail << ")";
  }
  cHalRequest list;
  list.op = halop::kListRoutes;
  ASSERT_EQ(0, proxy.Execute(list, lines, detail));
  EXPECT_EQ(c.table, lines);
}

char const* const kNet = "10.1.0.0";
char const* const kMask = "255.255.0.0";

INSTANTIATE_TEST_SUITE_P(
    Proxy, MemorySemantics,
    ::testing::Values(
        Case{"HostBitsOfTheNetworkAreMasked", eUnavailable::kSkip,
             {{Set("10.1.2.3", kMask, "192.168.1.1", "eth1"), 0}},
             {"10.1.0.0/16 via 192.168.1.1 dev eth1 metric 0"}},
        Case{"SourceAndMetricAreKept", eUnavailable::kSkip,
             {{Set("172.16.5.9", "255.255.255.255", "10.8.0.1", "", 7, true, "192.168.1.2"), 0}},
             {"172.16.5.9/32 via 10.8.0.1 src 192.168.1.2 metric 7"}},
        Case{"RepeatingARouteLeavesOneCopy", eUnavailable::kSkip,
             {{Set(kNet, kMask, "192.168.1.1", "eth1"), 0},
              {Set(kNet, kMask, "192.168.1.1", "eth1"), 0}},
             {"10.1.0.0/16 via 192.168.1.1 dev eth1 metric 0"}},
        Case{"SamePrefixAndMetricReplaces", eUnavailable::kSkip,
             {{Set(kNet, kMask, "192.168.1.1", "eth1"), 0},
              {Set(kNet, kMask, "192.168.0.1", "eth0"), 0}},
             {"10.1.0.0/16 via 192.168.0.1 dev eth0 metric 0"}},
        Case{"AnotherMetricIsAnotherRoute", eUnavailable::kSkip,
             {{Set(kNet, kMask, "192.168.1.1", "eth1", 5), 0},
              {Set(kNet, kMask, "192.168.0.1", "eth0", 0), 0}},
             {"10.1.0.0/16 via 192.168.0.1 dev eth0 metric 0",
              "10.1.0.0/16 via 192.168.1.1 dev eth1 metric 5"}},
        Case{"RemovalTakesOnlyTheRouteViaThatGateway", eUnavailable::kSkip,
             {{Set(kNet, kMask, "192.168.1.1", "eth1"), 0},
              {Set("10.2.0.0", kMask, "192.168.1.1", "eth1"), 0},
              {Del(kNet, kMask, "192.168.9.9"), 0},
              {Del("10.2.3.4", kMask, "192.168.1.1"), 0},
              {Del("10.3.0.0", kMask, "192.168.1.1"), 0}},
             {"10.1.0.0/16 via 192.168.1.1 dev eth1 metric 0"}},
        Case{"UnavailableGatewayInstallsNothingByDefault", eUnavailable::kSkip,
             {{Set(kNet, kMask, "0.0.0.0", "", 0, false), 0},
              {Set("10.2.0.0", kMask, "192.168.1.1", "eth1"), 0},
              {Del("10.2.0.0", kMask, "192.168.1.1", false), 0}},
             {"10.2.0.0/16 via 192.168.1.1 dev eth1 metric 0"}},
        Case{"UnavailableGatewayCanInstallUnreachable", eUnavailable::kUnreachable,
             {{Set("10.9.0.0", kMask, "0.0.0.0", "", 0, false), 0},
              {Set("10.8.0.0", kMask, "0.0.0.0", "", 0, false), 0},
              {Del("10.8.0.0", kMask, "0.0.0.0", false), 0}},
             {"unreachable 10.9.0.0/16 metric 0"}},
        Case{"ReturningGatewayReplacesTheUnreachableRoute", eUnavailable::kUnreachable,
             {{Set("10.9.0.0", kMask, "0.0.0.0", "", 0, false), 0},
              {Set("10.9.0.0", kMask, "192.168.1.1", "eth1", 0, true), 0},
              {Del("10.9.0.0", kMask, "0.0.0.0", false), 0}},
             {"10.9.0.0/16 via 192.168.1.1 dev eth1 metric 0"}},
        Case{"TwoDefaultGatewaysOfEqualMetricStay", eUnavailable::kSkip,
             {{Default("10.0.0.1", 5), 0},
              {Default("10.0.0.2", 5), 0},
              {Default("10.0.0.1", 5), 0},
              {Default("10.0.0.2", 5), 0}},
             {"default via 10.0.0.1 metric 5", "default via 10.0.0.2 metric 5"}},
        Case{"NewMetricOfADefaultGatewayReplacesItsOldOne", eUnavailable::kSkip,
             {{Default("10.0.0.1", 5), 0},
              {Default("10.0.0.2", 1), 0},
              {Default("10.0.0.1", 0), 0}},
             {"default via 10.0.0.1 metric 0", "default via 10.0.0.2 metric 1"}},
        Case{"RemovingADefaultGatewayKeepsTheOthers", eUnavailable::kSkip,
             {{Default("10.0.0.1", 5), 0},
              {Default("10.0.0.2", 5), 0},
              {NoDefault("10.0.0.1"), 0},
              {NoDefault("10.0.0.3"), 0}},
             {"default via 10.0.0.2 metric 5"}},
        Case{"BadRequestsChangeNothing", eUnavailable::kSkip,
             {{Set("10.1.0", kMask, "192.168.1.1", "eth1"), -EINVAL},
              {Set(kNet, "255.0.255.0", "192.168.1.1", "eth1"), -EINVAL},
              {Set(kNet, kMask, "192.168.1.256", "eth1"), -EINVAL},
              {Set(kNet, kMask, "192.168.1.1", "eth1", 0, true, ""), -EINVAL},
              {Set(kNet, kMask, "192.168.1.1", "eth9"), -ENODEV},
              {Set(kNet, kMask, "192.168.1.1", "a/b"), -ENODEV},
              {Set(kNet, kMask, "0.0.0.0", ""), -ENODEV},
              {Del(kNet, "x", "192.168.1.1"), -EINVAL},
              {Default("0.0.0.0", 1), -EINVAL},
              {Default("10.0.0.1 ", 1), -EINVAL},
              {NoDefault(""), -EINVAL}},
             {}}),
    [](::testing::TestParamInfo<Case> const& info) { return info.param.name; });

TEST(MemoryFaults, InjectedErrorsAnswerInsteadOfTheTable) {
  cMemoryBackend backend;
  cHalProxy proxy(backend, eUnavailable::kSkip);
  std::vector<std::string> lines;
  std::string detail;
  auto fault = [&](std::uint16_t op, int code, std::uint32_t count) {
    cHalRequest r;
    r.op = halop::kInjectFault;
    r.faultOp = op;
    r.faultCode = code;
    r.faultCount = count;
    return proxy.Execute(r, lines, detail);
  };
  auto route = Set(kNet, kMask, "192.168.1.1", "eth1");

  ASSERT_EQ(0, fault(halop::kConfigureIPGateway, -ENETUNREACH, 1));
  EXPECT_EQ(-ENETUNREACH, proxy.Execute(route, lines, detail));
  EXPECT_EQ(0, proxy.Execute(Default("10.0.0.1", 1), lines, detail));  // other operations unaffected
  EXPECT_EQ(0, proxy.Execute(route, lines, detail));                   // a count of one is used up

  ASSERT_EQ(0, fault(halop::kRemoveIPDefaultGateway, -EIO, 0));
  EXPECT_EQ(-EIO, proxy.Execute(NoDefault("10.0.0.1"), lines, detail));
  EXPECT_EQ(-EIO, proxy.Execute(NoDefault("10.0.0.1"), lines, detail));
  ASSERT_EQ(0, fault(halop::kRemoveIPDefaultGateway, 0, 0));
  EXPECT_EQ(0, proxy.Execute(NoDefault("10.0.0.1"), lines, detail));

  EXPECT_EQ(-EINVAL, fault(halop::kListRoutes, -EIO, 0));
  EXPECT_EQ(-EINVAL, fault(halop::kConfigureIPGateway, 5, 0));

  cHalRequest list;
  list.op = halop::kListRoutes;
  ASSERT_EQ(0, proxy.Execute(list, lines, detail));
  EXPECT_EQ(std::vector<std::string>{"10.1.0.0/16 via 192.168.1.1 dev eth1 metric 0"}, lines);
}

}  // namespace
}  // namespace halproxy

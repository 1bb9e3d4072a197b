// The proxy's route semantics on the in-memory table: what a sequence of HAL
// requests leaves in the table, read back as the proxy lists it.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "hal/hal_protocol.h"
#include "memory_backend.h"
#include "proxy.h"

namespace halproxy {
namespace {

using hal::cHalRequest;
namespace halop = hal::halop;

cHalRequest Set(std::string net, std::string gw, std::string dev, unsigned metric = 0,
                bool avail = true, std::string src = "0.0.0.0", std::string mask = "255.255.0.0") {
  return {halop::kConfigureIPGateway, net, mask, gw, src, dev, metric, avail};
}
cHalRequest Del(std::string net, std::string gw, bool avail = true) {
  return {halop::kRemoveIPGateway, net, "255.255.0.0", gw, "", "", 0, avail};
}
cHalRequest Default(std::string gw, unsigned metric) {
  return {halop::kConfigureIpDefaultGateway, "", "", gw, "", "", metric};
}
cHalRequest NoDefault(std::string gw) {
  return {halop::kRemoveIPDefaultGateway, "", "", gw, "", ""};
}
cHalRequest Fault(std::uint16_t op, int code, std::uint32_t count) {
  return {halop::kInjectFault, "", "", "", "", "", 0, true, op, code, count};
}

TEST(MemorySemantics, TableAfterRequests) {
  struct Case {
    char const* name;
    std::vector<std::pair<cHalRequest, int>> steps;  // a request and its answer
    std::vector<std::string> table;
    eUnavailable unavailable = eUnavailable::kSkip;
  } const cases[] = {
      {"network masked, source and metric kept, a repeat leaves one copy",
       {{Set("10.1.2.3", "192.168.1.1", "eth1"), 0},
        {Set("10.1.0.0", "192.168.1.1", "eth1"), 0},
        {Set("172.16.5.9", "10.8.0.1", "", 7, true, "192.168.1.2", "255.255.255.255"), 0}},
       {"10.1.0.0/16 via 192.168.1.1 dev eth1 metric 0",
        "172.16.5.9/32 via 10.8.0.1 src 192.168.1.2 metric 7"}},
      {"same prefix and metric replaces, another metric is another route",
       {{Set("10.1.0.0", "192.168.1.1", "eth1", 5), 0},
        {Set("10.1.0.0", "192.168.1.1", "eth1"), 0},
        {Set("10.1.0.0", "192.168.0.1", "eth0"), 0}},
       {"10.1.0.0/16 via 192.168.0.1 dev eth0 metric 0",
        "10.1.0.0/16 via 192.168.1.1 dev eth1 metric 5"}},
      {"removal takes only the route via that gateway",
       {{Set("10.1.0.0", "192.168.1.1", "eth1"), 0},
        {Set("10.2.0.0", "192.168.1.1", "eth1"), 0},
        {Del("10.1.0.0", "192.168.9.9"), 0},
        {Del("10.2.3.4", "192.168.1.1"), 0}},
       {"10.1.0.0/16 via 192.168.1.1 dev eth1 metric 0"}},
      {"unavailable gateway installs nothing by default",
       {{Set("10.1.0.0", "0.0.0.0", "", 0, false), 0},
        {Set("10.2.0.0", "192.168.1.1", "eth1"), 0},
        {Del("10.2.0.0", "192.168.1.1", false), 0}},
       {"10.2.0.0/16 via 192.168.1.1 dev eth1 metric 0"}},
      {"unavailable gateway installs unreachable, a returning one replaces it",
       {{Set("10.9.0.0", "0.0.0.0", "", 0, false), 0},
        {Set("10.8.0.0", "0.0.0.0", "", 0, false), 0},
        {Del("10.8.0.0", "0.0.0.0", false), 0},
        {Set("10.9.0.0", "192.168.1.1", "eth1"), 0},
        {Set("10.7.0.0", "0.0.0.0", "", 0, false), 0}},
       {"unreachable 10.7.0.0/16 metric 0", "10.9.0.0/16 via 192.168.1.1 dev eth1 metric 0"},
       eUnavailable::kUnreachable},
      {"default gateways of equal metric stay, a new metric replaces, removal keeps others",
       {{Default("10.0.0.1", 5), 0},
        {Default("10.0.0.2", 5), 0},
        {Default("10.0.0.3", 5), 0},
        {Default("10.0.0.1", 5), 0},
        {Default("10.0.0.2", 1), 0},
        {NoDefault("10.0.0.3"), 0},
        {NoDefault("10.0.0.4"), 0}},
       {"default via 10.0.0.2 metric 1", "default via 10.0.0.1 metric 5"}},
      {"bad requests change nothing",
       {{Set("10.1.0", "192.168.1.1", "eth1"), -EINVAL},
        {Set("10.1.0.0", "192.168.1.1", "eth1", 0, true, "0.0.0.0", "255.0.255.0"), -EINVAL},
        {Set("10.1.0.0", "192.168.1.1", "eth9"), -ENODEV},
        {Default("0.0.0.0", 1), -EINVAL}},
       {}},
      {"injected faults answer instead of the table",
       {{Fault(halop::kConfigureIPGateway, -ENETUNREACH, 1), 0},
        {Set("10.1.0.0", "192.168.1.1", "eth1"), -ENETUNREACH},
        {Default("10.0.0.1", 1), 0},                  // other operations unaffected
        {Set("10.1.0.0", "192.168.1.1", "eth1"), 0},  // a count of one is used up
        {Fault(halop::kRemoveIPDefaultGateway, -EIO, 0), 0},
        {NoDefault("10.0.0.1"), -EIO},
        {NoDefault("10.0.0.1"), -EIO},
        {Fault(halop::kRemoveIPDefaultGateway, 0, 0), 0},  // cleared
        {NoDefault("10.0.0.1"), 0},
        {Fault(halop::kListRoutes, -EIO, 0), -EINVAL}},
       {"10.1.0.0/16 via 192.168.1.1 dev eth1 metric 0"}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    cMemoryBackend backend({"eth0", "eth1"});
    cHalProxy proxy(backend, c.unavailable);
    std::vector<std::string> lines;
    std::string detail;
    for (auto const& [req, rc] : c.steps)
      EXPECT_EQ(rc, proxy.Execute(req, lines, detail)) << hal::Describe(req) << ": " << detail;
    ASSERT_EQ(0, proxy.Execute({halop::kListRoutes, "", "", "", "", ""}, lines, detail));
    EXPECT_EQ(c.table, lines);
  }
}

}  // namespace
}  // namespace halproxy

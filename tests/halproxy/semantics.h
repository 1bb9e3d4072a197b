// The proxy's route semantics, one table of cases for every backend: what a
// sequence of HAL requests, refreshes and other parties' doings leaves among
// the proxy's routes, read back as the proxy lists them. The memory backend
// runs it anywhere, the netlink backend in a namespace of its own where two
// veth links hold the gateways 192.0.2.1 (veth0) and 198.51.100.1 (veth1).
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "fault_backend.h"
#include "hal/hal_protocol.h"
#include "keeper.h"
#include "proxy.h"
#include "support/poll.h"

namespace halproxy_semantics {

using hal::cHalRequest;
using Lines = std::vector<std::string>;
namespace halop = hal::halop;

// Documentation ranges: nothing could reach another network from a test's namespace.
char const* const kGw0 = "192.0.2.1";
char const* const kGw1 = "198.51.100.1";

inline std::uint32_t Ip(char const* text) {
  in_addr a{};
  inet_pton(AF_INET, text, &a);
  return ntohl(a.s_addr);
}
inline std::vector<int> Codes(std::vector<halproxy::cResult> const& results) {
  std::vector<int> codes;
  for (auto const& r : results) codes.push_back(r.code);
  return codes;
}
inline halproxy::cRoute Route(char const* net, std::uint8_t len, char const* gw,
                              char const* dev = "", std::uint32_t metric = 0,
                              char const* src = "0.0.0.0") {
  return {Ip(net), len, halproxy::eRouteType::kUnicast, Ip(gw), Ip(src), dev, metric};
}

// What other parties do to the table, as `ip` would say it.
class IWorld {
 public:
  virtual ~IWorld() = default;
  virtual halproxy::IRouteBackend& Backend() = 0;
  // "lose 10.1.0.0/16" (deleted by hand), "down veth1", "up veth1",
  // "foreign 10.5.0.0/16 dev veth0" (a link route made by somebody else).
  virtual void Do(std::string const& action) = 0;
};

struct cStep {
  cHalRequest req;
  int rc = 0;
  std::string action;  // instead of req when set
  int connection = 1;  // marks count per connection
};

inline cStep Set(std::string net, std::string gw, std::string dev, unsigned metric = 0,
                 bool avail = true, std::string src = "0.0.0.0", std::string mask = "255.255.0.0",
                 int rc = 0) {
  return {{halop::kConfigureIPGateway, net, mask, gw, src, dev, metric, avail}, rc, "", 1};
}
inline cStep Del(std::string net, std::string gw, bool avail = true, int rc = 0) {
  return {{halop::kRemoveIPGateway, net, "255.255.0.0", gw, "", "", 0, avail}, rc, "", 1};
}
inline cStep Default(std::string gw, unsigned metric, int rc = 0) {
  return {{halop::kConfigureIpDefaultGateway, "", "", gw, "", "", metric}, rc, "", 1};
}
inline cStep NoDefault(std::string gw, int rc = 0) {
  return {{halop::kRemoveIPDefaultGateway, "", "", gw, "", ""}, rc, "", 1};
}
inline cStep Fault(std::uint16_t op, int code, std::uint32_t count, int rc = 0) {
  return {{halop::kInjectFault, "", "", "", "", "", 0, true, op, code, count}, rc, "", 1};
}
inline cStep Mark(std::uint16_t op, int connection = 1) {
  return {{op, "", "", "", "", ""}, 0, "", connection};
}
inline cStep World(std::string action) { return {{}, 0, std::move(action), 1}; }
inline cStep Fails(cStep step, int rc) {
  step.rc = rc;
  return step;
}

struct cCase {
  char const* name;
  std::vector<cStep> steps;
  Lines table;  // sorted; a line without " dev " matches whatever device the kernel picked
  halproxy::eUnavailable unavailable = halproxy::eUnavailable::kSkip;
};

// A refresh of connection that asks for steps (K refreshes sweep with K 2).
inline std::vector<cStep> Refresh(std::vector<cStep> steps, int connection = 1) {
  steps.insert(steps.begin(), Mark(halop::kRefreshStart, connection));
  steps.push_back(Mark(halop::kRefreshEnd, connection));
  return steps;
}
inline std::vector<cStep> Then(std::vector<cStep> a, std::vector<cStep> const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<cCase> Cases();

// The proxy's table, sorted, devices left out where expected leaves them out.
inline Lines Normalized(Lines actual, Lines const& expected) {
  std::sort(actual.begin(), actual.end());
  if (actual.size() != expected.size()) return actual;
  for (std::size_t i = 0; i < actual.size(); ++i) {
    std::size_t dev = actual[i].find(" dev ");
    if (expected[i].find(" dev ") != std::string::npos || dev == std::string::npos) continue;
    actual[i].erase(dev, actual[i].find(' ', dev + 5) - dev);
  }
  return actual;
}

// Runs every case on a fresh world from make().
template <typename Make>
void RunCases(Make make) {
  for (cCase const& c : Cases()) {
    SCOPED_TRACE(c.name);
    auto world = make();
    if (!world) return;
    halproxy::cFaultBackend faults(world->Backend());
    halproxy::cHalProxy proxy(faults, c.unavailable, 2, &faults);
    Lines lines;
    std::string detail;
    for (cStep const& s : c.steps) {
      if (!s.action.empty()) {
        world->Do(s.action);
        continue;
      }
      // Connections are told apart by identity only.
      void const* connection =
          reinterpret_cast<void const*>(static_cast<std::uintptr_t>(s.connection));
      EXPECT_EQ(s.rc, proxy.Execute(s.req, lines, detail, connection))
          << hal::Describe(s.req) << ": " << detail;
    }
    // Restoration comes from the loop. The wait reads the backend itself: a
    // listing through the proxy would have it read the table afresh.
    auto restored = [&] {
      std::vector<halproxy::cTableRoute> table;
      lines.clear();
      if (world->Backend().List(table).code != 0) return false;
      for (auto const& r : table)
        if (r.ours) lines.push_back(halproxy::FormatRoute(r.route));
      return Normalized(lines, c.table) == c.table;
    };
    testsupport::PumpUntil(restored, 1000);
    proxy.Execute({halop::kListRoutes, "", "", "", "", ""}, lines, detail);
    EXPECT_EQ(c.table, Normalized(lines, c.table));
  }
}

inline std::vector<cCase> Cases() {
  using halproxy::eUnavailable;
  int const kNotOurs = halproxy::kNotOurs;
  std::vector<cStep> const orphans = {Set("10.1.0.0", kGw0, "veth0"), Set("10.2.0.0", kGw1, ""),
                                      Default(kGw0, 5)};
  return {
      {"network masked, source and metric kept, a repeat leaves one copy",
       {Set("10.1.2.3", kGw0, "veth0"), Set("10.1.0.0", kGw0, "veth0"),
        Set("172.16.5.9", kGw1, "", 7, true, "198.51.100.2", "255.255.255.255")},
       {"10.1.0.0/16 via 192.0.2.1 dev veth0 metric 0",
        "172.16.5.9/32 via 198.51.100.1 src 198.51.100.2 metric 7"}},
      {"same prefix and metric replaces, another metric is another route",
       {Set("10.1.0.0", kGw0, "veth0", 5), Set("10.1.0.0", kGw0, "veth0"),
        Set("10.1.0.0", kGw1, "veth1")},
       {"10.1.0.0/16 via 192.0.2.1 dev veth0 metric 5",
        "10.1.0.0/16 via 198.51.100.1 dev veth1 metric 0"}},
      {"removal takes only the route via that gateway",
       {Set("10.1.0.0", kGw0, "veth0"), Set("10.2.0.0", kGw0, "veth0"), Del("10.1.0.0", kGw1),
        Del("10.2.3.4", kGw0)},
       {"10.1.0.0/16 via 192.0.2.1 dev veth0 metric 0"}},
      {"unavailable gateway installs nothing by default",
       {Set("10.1.0.0", "0.0.0.0", "", 0, false), Set("10.2.0.0", kGw0, "veth0"),
        Del("10.2.0.0", kGw0, false)},
       {"10.2.0.0/16 via 192.0.2.1 dev veth0 metric 0"}},
      {"unavailable gateway installs unreachable, a returning one replaces it",
       {Set("10.9.0.0", "0.0.0.0", "", 0, false), Set("10.8.0.0", "0.0.0.0", "", 0, false),
        Del("10.8.0.0", "0.0.0.0", false), Set("10.9.0.0", kGw0, "veth0"),
        Set("10.7.0.0", "0.0.0.0", "", 0, false)},
       {"10.9.0.0/16 via 192.0.2.1 dev veth0 metric 0", "unreachable 10.7.0.0/16 metric 0"},
       eUnavailable::kUnreachable},
      {"default gateways of equal metric stay, a new metric replaces, removal keeps others",
       {Default(kGw0, 5), Default(kGw1, 5), Default(kGw0, 5), Default(kGw1, 1), Default(kGw0, 5),
        NoDefault(kGw1), NoDefault("203.0.113.9")},
       {"default via 192.0.2.1 metric 5"}},
      {"a custom route like a default gateway's is one route",
       {Default(kGw1, 5), Set("0.0.0.0", kGw1, "veth1", 5, true, "0.0.0.0", "0.0.0.0"),
        Default(kGw1, 5)},
       {"default via 198.51.100.1 dev veth1 metric 5"}},
      {"bad requests change nothing",
       {Fails(Set("10.1.0", kGw0, "veth0"), -EINVAL),
        Fails(Set("10.1.0.0", kGw0, "veth0", 0, true, "0.0.0.0", "255.0.255.0"), -EINVAL),
        Fails(Set("10.1.0.0", kGw0, "eth9"), -ENODEV), Default("0.0.0.0", 1, -EINVAL)},
       {}},
      {"injected faults answer instead of the table",
       {Fault(halop::kConfigureIPGateway, -ENETUNREACH, 1),
        Fails(Set("10.1.0.0", kGw0, "veth0"), -ENETUNREACH),
        Default(kGw0, 1),                // other operations unaffected
        Set("10.1.0.0", kGw0, "veth0"),  // a count of one is used up
        Fault(halop::kRemoveIPDefaultGateway, -EIO, 0), NoDefault(kGw0, -EIO),
        NoDefault(kGw0, -EIO), Fault(halop::kRemoveIPDefaultGateway, 0, 0),  // cleared
        NoDefault(kGw0), Fault(halop::kListRoutes, -EIO, 0, -EINVAL)},
       {"10.1.0.0/16 via 192.0.2.1 dev veth0 metric 0"}},
      {"a route that another party made is neither replaced nor removed",
       {World("foreign 10.5.0.0/16 dev veth0"), Fails(Set("10.5.0.0", kGw1, "veth1"), kNotOurs),
        Fails(Del("10.5.0.0", "0.0.0.0"), kNotOurs), Set("10.5.0.0", kGw1, "veth1", 7)},
       {"10.5.0.0/16 via 198.51.100.1 dev veth1 metric 7"}},
      {"what the daemon's refreshes stop asking for goes after K of them, the rest stays",
       Then(Refresh(orphans), Then(Refresh({Set("10.1.0.0", kGw0, "veth0"), Default(kGw1, 5)}),
                                   Refresh({Set("10.1.0.0", kGw0, "veth0"), Default(kGw1, 5)}))),
       {"10.1.0.0/16 via 192.0.2.1 dev veth0 metric 0", "default via 198.51.100.1 metric 5"}},
      {"a single request between refreshes counts, and a failed one is still owed",
       Then(Then(Refresh({}),
                 {Set("10.3.0.0", kGw0, "veth0"), Fault(halop::kConfigureIPGateway, -EIO, 0)}),
            Then(Then(Refresh({Fails(Set("10.1.0.0", kGw0, "veth0"), -EIO)}),
                      Refresh({Fails(Set("10.1.0.0", kGw0, "veth0"), -EIO)})),
                 {Fault(halop::kConfigureIPGateway, 0, 0), World("lose 10.3.0.0/16")})),
       {"10.1.0.0/16 via 192.0.2.1 dev veth0 metric 0",
        "10.3.0.0/16 via 192.0.2.1 dev veth0 metric 0"}},
      {"nothing is swept before K refreshes of a new daemon connection",
       Then(Then(Refresh(orphans), Refresh({})),
            Then(Refresh({}, 2), {Mark(halop::kRefreshEnd, 1), Mark(halop::kRefreshStart, 2)})),
       {"10.1.0.0/16 via 192.0.2.1 dev veth0 metric 0", "10.2.0.0/16 via 198.51.100.1 metric 0",
        "default via 192.0.2.1 metric 5"}},
      {"a route deleted by hand, or with its link, comes back",
       {Set("10.1.0.0", kGw0, "veth0"), Set("10.2.0.0", kGw1, "veth1"), Default(kGw1, 5),
        World("lose 10.1.0.0/16"), World("down veth1"), World("up veth1")},
       {"10.1.0.0/16 via 192.0.2.1 dev veth0 metric 0",
        "10.2.0.0/16 via 198.51.100.1 dev veth1 metric 0", "default via 198.51.100.1 metric 5"}},
      {"a withdrawn route is not restored",
       Then(Refresh({Set("10.1.0.0", kGw0, "veth0"), Set("10.2.0.0", kGw1, "veth1")}),
            {Del("10.1.0.0", kGw0), World("lose 10.2.0.0/16")}),
       {"10.2.0.0/16 via 198.51.100.1 dev veth1 metric 0"}},
  };
}

}  // namespace halproxy_semantics

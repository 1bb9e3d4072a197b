#include "routeIO/route_protocol.h"

#include <gtest/gtest.h>

#include <vector>

namespace routeIO {
namespace {

kest::s_socket_addr Ip(char const* dotted) { return kest::s_socket_addr(dotted, 0); }

bool SameCommand(routeCommand const& a, routeCommand const& b) {
  if (a.index() != b.index()) return false;
  struct Eq {
    routeCommand const& other;
    bool operator()(cSetGatewayCmd const& x) const {
      auto const& y = std::get<cSetGatewayCmd>(other);
      return x.address == y.address && x.tag == y.tag && x.ifname == y.ifname &&
             x.type == y.type && x.priority == y.priority;
    }
    bool operator()(cSetRouteCmd const& x) const {
      auto const& y = std::get<cSetRouteCmd>(other);
      return x.network == y.network && x.netmask == y.netmask && x.gateway == y.gateway &&
             x.source == y.source && x.ifname == y.ifname && x.tag == y.tag &&
             x.priority == y.priority;
    }
    bool operator()(cDelGatewayCmd const& x) const {
      return x.tag == std::get<cDelGatewayCmd>(other).tag;
    }
    bool operator()(cDelRouteCmd const& x) const {
      return x.tag == std::get<cDelRouteCmd>(other).tag;
    }
  };
  return std::visit(Eq{b}, a);
}

std::vector<routeCommand> SampleCommands() {
  return {
      cSetGatewayCmd{Ip("10.0.0.1"), "wired", "eth0", 1, 5},
      cSetGatewayCmd{kest::s_socket_addr(0xFFFFFFFFu, 65535), "", "", 0xFFFFFFFFu, 0xFFFFFFFFu},
      cSetRouteCmd{Ip("10.1.0.0"), Ip("255.255.0.0"), Ip("192.168.1.1"), Ip("0.0.0.0"), "eth1",
                   "backup", 7},
      cSetRouteCmd{Ip("192.168.1.77"), Ip("255.255.255.0"), Ip("1.2.3.4"), Ip("5.6.7.8"),
                   std::string(300, 'i'), std::string("t\0ag", 4), 0},
      cDelGatewayCmd{"vpn"},
      cDelRouteCmd{std::string("a\0b", 3)},
  };
}

TEST(RouteProtocol, CommandsRoundTrip) {
  for (auto const& cmd : SampleCommands()) {
    kest::cSerializeBuffer body;
    ASSERT_TRUE(EncodeCommand(cmd, body));
    routeCommand back;
    std::string error;
    ASSERT_TRUE(DecodeCommand(OpOf(cmd), body, back, error)) << error;
    EXPECT_TRUE(SameCommand(cmd, back)) << "op " << OpOf(cmd);
  }
}

// Every strict prefix of a valid body, the same body under another op, and
// a body with a byte too many are all refused with a reason.
TEST(RouteProtocol, TruncatedStrayOrMislabelledBodiesAreRefused) {
  for (auto const& cmd : SampleCommands()) {
    kest::cSerializeBuffer full;
    ASSERT_TRUE(EncodeCommand(cmd, full));
    for (std::size_t len = 0; len < full.Size(); ++len) {
      kest::cSerializeBuffer part(full.Data(), len);
      routeCommand out;
      std::string error;
      EXPECT_FALSE(DecodeCommand(OpOf(cmd), part, out, error))
          << "op " << OpOf(cmd) << " len " << len;
      EXPECT_FALSE(error.empty());
    }
    kest::cSerializeBuffer longer(full.Data(), full.Size());
    longer.WriteU8(0);
    routeCommand out;
    std::string error;
    EXPECT_FALSE(DecodeCommand(OpOf(cmd), longer, out, error));
    EXPECT_NE(error.find("stray"), std::string::npos) << error;
  }
}

TEST(RouteProtocol, GarbageBodiesAreRefused) {
  kest::cSerializeBuffer del;
  ASSERT_TRUE(EncodeCommand(cDelRouteCmd{"x"}, del));
  std::vector<std::uint8_t> wrongVersion = del.Bytes();
  wrongVersion[0] = 2;
  std::vector<std::uint8_t> hugeLength = del.Bytes();
  hugeLength[1] = hugeLength[2] = hugeLength[3] = hugeLength[4] = 0xFF;

  struct Case {
    char const* what;
    std::uint16_t op;
    std::vector<std::uint8_t> bytes;
    char const* reason;
  } const cases[] = {
      {"unknown op", 99, del.Bytes(), "unknown op 99"},
      {"op zero", 0, {}, "unknown op 0"},
      {"string of an unknown version", routeop::kDelRoute, wrongVersion, "malformed DelRoute"},
      {"string longer than the body", routeop::kDelRoute, hugeLength, "malformed DelRoute"},
      {"DelRoute body read as SetRoute", routeop::kSetRoute, del.Bytes(), "malformed SetRoute"},
  };
  for (auto const& c : cases) {
    kest::cSerializeBuffer body(c.bytes.data(), c.bytes.size());
    routeCommand out;
    std::string error;
    EXPECT_FALSE(DecodeCommand(c.op, body, out, error)) << c.what;
    EXPECT_NE(error.find(c.reason), std::string::npos) << c.what << ": " << error;
  }
}

TEST(RouteProtocol, LongestStringPassesOneMoreIsNotEncoded) {
  std::string const longest(kest::s_string::kMaxLength, 'x');
  kest::cSerializeBuffer ok;
  ASSERT_TRUE(EncodeCommand(cDelGatewayCmd{longest}, ok));
  routeCommand back;
  std::string error;
  ASSERT_TRUE(DecodeCommand(routeop::kDelGateway, ok, back, error)) << error;
  EXPECT_EQ(std::get<cDelGatewayCmd>(back).tag, longest);

  kest::cSerializeBuffer body;
  body.WriteU8(42);
  EXPECT_FALSE(EncodeCommand(cDelGatewayCmd{longest + "x"}, body));
  EXPECT_EQ(body.Size(), 1u);  // nothing half-written
}

// The layout other-language clients are written against (docs/protocol.md).
TEST(RouteProtocol, WireLayoutIsPinned) {
  kest::cSerializeBuffer body;
  ASSERT_TRUE(EncodeCommand(cSetGatewayCmd{Ip("10.0.0.1"), "w", "e0", 1, 0x0102}, body));
  std::vector<std::uint8_t> const expected = {
      1, 0x01, 0x00, 0x00, 0x0A, 0x00, 0x00,  // address: version, ip LE, port LE
      1, 1, 0, 0, 0, 'w',                     // tag
      1, 2, 0, 0, 0, 'e', '0',                // ifname
      1, 0, 0, 0,                             // type
      0x02, 0x01, 0, 0,                       // priority
  };
  EXPECT_EQ(body.Bytes(), expected);

  kest::cSerializeBuffer result;
  EncodeResult(routeResult{false, -100}, result);
  EXPECT_EQ(result.Bytes(), (std::vector<std::uint8_t>{0, 0x9C, 0xFF, 0xFF, 0xFF}));
}

TEST(RouteProtocol, ResultsRoundTripAndGarbageIsRefused) {
  for (routeResult r : {routeResult{true, 0}, routeResult{false, -100}, routeResult{false, 5},
                        routeResult{false, INT32_MIN}}) {
    kest::cSerializeBuffer body;
    EncodeResult(r, body);
    routeResult back{};
    std::string error;
    ASSERT_TRUE(DecodeResult(body, back, error)) << error;
    EXPECT_EQ(back.success, r.success);
    EXPECT_EQ(back.rc, r.rc);
  }
  std::vector<std::vector<std::uint8_t>> const garbage = {
      {}, {1}, {1, 0, 0, 0}, {2, 0, 0, 0, 0}, {1, 0, 0, 0, 0, 0}};
  for (auto const& bytes : garbage) {
    kest::cSerializeBuffer body(bytes.data(), bytes.size());
    routeResult out{};
    std::string error;
    EXPECT_FALSE(DecodeResult(body, out, error)) << bytes.size() << " bytes";
    EXPECT_FALSE(error.empty());
  }
}

}  // namespace
}  // namespace routeIO

#include "routeIO/route_protocol.h"

#include <gtest/gtest.h>

#include <vector>

namespace routeIO {
namespace {

using Bytes = std::vector<std::uint8_t>;
kest::s_socket_addr Ip(char const* dotted) { return kest::s_socket_addr(dotted, 0); }

Bytes Encoded(routeCommand const& cmd) {
  kest::cSerializeBuffer body;
  EXPECT_TRUE(EncodeCommand(cmd, body));
  return body.Bytes();
}

// The reason DecodeCommand gives for refusing bytes as op; "" when it decodes.
std::string Refusal(std::uint16_t op, Bytes const& bytes, std::size_t len, routeCommand& out) {
  kest::cSerializeBuffer body(bytes.data(), len);
  std::string error;
  return DecodeCommand(op, body, out, error) ? "" : error.empty() ? "no reason" : error;
}

// Every field set to a value no decoder produces by accident: one that drops
// or swaps a field changes the re-encoded bytes.
TEST(RouteProtocol, CommandsRoundTripAndCutOrPaddedBodiesAreRefused) {
  routeCommand const samples[] = {
      cSetGatewayCmd{kest::s_socket_addr(0xFFFFFFFEu, 65535), "wired", "eth0", 7, 0xFFFFFFFFu},
      cSetRouteCmd{Ip("10.1.0.0"), Ip("255.255.0.0"), Ip("192.168.1.1"), Ip("5.6.7.8"),
                   std::string(300, 'i'), std::string("t\0ag", 4), 7},
      cDelGatewayCmd{"vpn"}, cDelRouteCmd{std::string("a\0b", 3)}};
  for (auto const& cmd : samples) {
    SCOPED_TRACE(OpOf(cmd));
    Bytes bytes = Encoded(cmd);
    routeCommand back;
    ASSERT_EQ("", Refusal(OpOf(cmd), bytes, bytes.size(), back));
    EXPECT_EQ(OpOf(cmd), OpOf(back));
    EXPECT_EQ(bytes, Encoded(back));
    for (std::size_t len = 0; len < bytes.size(); ++len)
      EXPECT_NE("", Refusal(OpOf(cmd), bytes, len, back)) << "len " << len;
    bytes.push_back(0);
    EXPECT_NE(std::string::npos, Refusal(OpOf(cmd), bytes, bytes.size(), back).find("stray"));
  }
  kest::cSerializeBuffer body;  // a string too long to send is not half-written
  EXPECT_FALSE(
      EncodeCommand(cDelGatewayCmd{std::string(kest::s_string::kMaxLength + 1, 'x')}, body));
  EXPECT_EQ(0u, body.Size());
}

// The layout clients in other languages are written against (docs/protocol.md).
TEST(RouteProtocol, WireLayoutIsPinned) {
  EXPECT_EQ(Encoded(cSetGatewayCmd{Ip("10.0.0.1"), "w", "e0", 1, 0x0102}),
            (Bytes{1,    0x01, 0x00, 0x00, 0x0A, 0x00, 0x00,  // address: version, ip LE, port LE
                   1,    1,    0,    0,    0,    'w',         // tag
                   1,    2,    0,    0,    0,    'e',  '0',   // ifname
                   1,    0,    0,    0,                       // type
                   0x02, 0x01, 0,    0}));                    // priority
  kest::cSerializeBuffer result;
  EncodeResult(routeResult{false, -100}, result);
  EXPECT_EQ(result.Bytes(), (Bytes{0, 0x9C, 0xFF, 0xFF, 0xFF}));  // read back by route clients
}

}  // namespace
}  // namespace routeIO

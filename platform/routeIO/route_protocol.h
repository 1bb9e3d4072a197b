// Wire format of the route service: the four commands and their answer.
// A pure codec (bytes in, values out, no I/O) so it can be fuzzed; framing
// is kest's. The layouts are described in docs/protocol.md.
#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "kest/hello.h"
#include "kest/serialize.h"
#include "kest/types.h"
#include "routeIO/route_server.h"

namespace routeIO {

// What a route client names in its hello, and the route service answers with.
constexpr kest::cServiceId kService{"routeMgr", "the route manager", 1};

// Frame op codes. Numbers are part of the wire format: never reuse one.
namespace routeop {
constexpr std::uint16_t kSetGateway = 1;
constexpr std::uint16_t kSetRoute = 2;
constexpr std::uint16_t kDelGateway = 3;
constexpr std::uint16_t kDelRoute = 4;
char const* Name(std::uint16_t op);  // "SetGateway", ...; nullptr when unknown
}  // namespace routeop

struct cSetGatewayCmd {
  kest::s_socket_addr address;
  std::string tag;
  std::string ifname;
  std::uint32_t type = 0;
  std::uint32_t priority = 0;
};

struct cSetRouteCmd {
  kest::s_socket_addr network;
  kest::s_socket_addr netmask;
  kest::s_socket_addr gateway;
  kest::s_socket_addr source;
  std::string ifname;
  std::string tag;
  std::uint32_t priority = 0;
};

struct cDelGatewayCmd {
  std::string tag;
};

struct cDelRouteCmd {
  std::string tag;
};

using routeCommand = std::variant<cSetGatewayCmd, cSetRouteCmd, cDelGatewayCmd, cDelRouteCmd>;

std::uint16_t OpOf(routeCommand const& cmd);

// Appends the body of cmd to body; false (body unchanged) when a string is
// longer than kest::s_string::kMaxLength.
bool EncodeCommand(routeCommand const& cmd, kest::cSerializeBuffer& body);
// Reads the whole of body (from its cursor) as the command op; false with a
// reason on an unknown op, a short or malformed body, or bytes left over.
bool DecodeCommand(std::uint16_t op, kest::cSerializeBuffer& body, routeCommand& out,
                   std::string& error);

void EncodeResult(routeResult const& result, kest::cSerializeBuffer& body);
bool DecodeResult(kest::cSerializeBuffer& body, routeResult& out, std::string& error);

}  // namespace routeIO

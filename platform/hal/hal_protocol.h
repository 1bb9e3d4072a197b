// Wire format of the HAL proxy: its requests and their answers. A pure codec
// (bytes in, values out, no I/O) so it can be fuzzed; framing is kest's.
// The layouts are described in docs/protocol.md.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kest/hello.h"
#include "kest/serialize.h"

namespace hal {

// What a client names in its hello, and the proxy answers with.
constexpr kest::cServiceId kService{"halProx", "the HAL proxy", 1};

// Frame op codes. Numbers are part of the wire format: never reuse one.
namespace halop {
constexpr std::uint16_t kConfigureIPGateway = 1;
constexpr std::uint16_t kRemoveIPGateway = 2;
constexpr std::uint16_t kConfigureIpDefaultGateway = 3;
constexpr std::uint16_t kRemoveIPDefaultGateway = 4;
// Marks around a complete refresh: the requests between them are everything
// the route manager wants, so the proxy may remove what it installed and was
// not asked for again (the HAL client sends them around its batch).
constexpr std::uint16_t kRefreshStart = 5;
constexpr std::uint16_t kRefreshEnd = 6;
// Tooling operations, for tests and diagnostics: not used by the daemon.
constexpr std::uint16_t kListRoutes = 16;
constexpr std::uint16_t kInjectFault = 17;
char const* Name(std::uint16_t op);  // "ConfigureIPGateway", ...; nullptr when unknown
}  // namespace halop

// One request; which fields travel depends on op (see EncodeRequest).
struct cHalRequest {
  std::uint16_t op = 0;
  std::string network;  // dotted quad, also for netmask, gateway and source
  std::string netmask;
  std::string gateway;
  std::string source;
  std::string ifname;
  std::uint32_t metric = 0;
  bool gwAvailable = true;
  // kInjectFault: the next faultCount requests of faultOp (0 = all until
  // cleared) answer faultCode; faultCode 0 clears the fault of faultOp.
  std::uint16_t faultOp = 0;
  std::int32_t faultCode = 0;
  std::uint32_t faultCount = 0;
  std::uint32_t first = 0;  // kListRoutes: index of the first route wanted
};

// Appends the body of req to body; false (body unchanged) on an unknown op or
// a string longer than kest::s_string::kMaxLength.
bool EncodeRequest(cHalRequest const& req, kest::cSerializeBuffer& body);
// Reads the whole of body (from its cursor) as a request of op; false with a
// reason on an unknown op, a short or malformed body, or bytes left over.
bool DecodeRequest(std::uint16_t op, kest::cSerializeBuffer& body, cHalRequest& out,
                   std::string& error);

// The answer of every operation but kListRoutes: one int, 0 = success,
// otherwise a negative errno value.
void EncodeResult(int result, kest::cSerializeBuffer& body);
bool DecodeResult(kest::cSerializeBuffer& body, int& out, std::string& error);

// The answer of kListRoutes: a result and, when it is 0, one piece of the
// table as lines; more tells that routes follow (ask again from first +
// lines). A whole table of a few thousand routes cannot travel in one frame.
struct cRouteList {
  std::int32_t result = 0;
  std::vector<std::string> lines;
  bool more = false;
};
bool EncodeRouteList(cRouteList const& list, kest::cSerializeBuffer& body);
bool DecodeRouteList(kest::cSerializeBuffer& body, cRouteList& list, std::string& error);
// A successful answer with as many of lines (the table from the first route
// asked for) as fit in one frame; more set when some are left.
void EncodeRoutePiece(std::vector<std::string> const& lines, kest::cSerializeBuffer& body);
// Far more routes than a router's table holds: a client stops collecting
// there, so a proxy that answers "more" for ever cannot exhaust its memory.
constexpr std::size_t kMaxListedRoutes = 1u << 20;
// Adds a piece (result 0) to the lines a client has collected. False with a
// reason when it breaks the protocol: more announced and nothing sent, or
// past kMaxListedRoutes.
bool CollectRoutePiece(cRouteList const& piece, std::vector<std::string>& lines,
                       std::string& error);

// One readable line for logs, e.g.
// "ConfigureIPGateway 10.1.0.0/255.255.0.0 via 192.168.1.1 dev eth1 src 0.0.0.0 metric 0 avail=1"
std::string Describe(cHalRequest const& req);

}  // namespace hal

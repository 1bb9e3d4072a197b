// Result codes that the route library produces itself, on the client side,
// when no answer of the route service could be had. The service's own
// answers carry its codes unchanged (0 = done); these are kept negative and
// far from both -errno values and the service's codes so a caller can tell
// "the service said no" from "the service was never asked".
#pragma once

#include <cstdint>

namespace routeIO {
namespace routeerr {

constexpr std::int32_t kNotConnected = -2001;    // no connection (never made, or closed)
constexpr std::int32_t kTimeout = -2002;         // no answer within the client's timeout
constexpr std::int32_t kConnectionLost = -2003;  // the connection broke before the answer
constexpr std::int32_t kProtocol = -2004;        // the answer could not be understood
constexpr std::int32_t kBadRequest = -2005;      // the request cannot be encoded (string too long)
constexpr std::int32_t kBusy = -2006;  // a single call while posted answers are uncollected
constexpr std::int32_t kNothingPosted = -2007;  // Collect with no request outstanding

// "not connected", ...; nullptr for any other code.
char const* Name(std::int32_t code);

}  // namespace routeerr
}  // namespace routeIO

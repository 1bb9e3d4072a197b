// Failure codes of the HAL client itself, as opposed to the proxy's answers
// (0 or a negative errno value from the kernel). They are the framework's
// client codes, far below any errno, so a caller can tell them apart.
#pragma once

#include <string>

#include "kest/service_client.h"

namespace hal {
namespace halerr {
constexpr int kNotConnected = kest::clienterr::kNotConnected;      // no connection to the proxy
constexpr int kTimeout = kest::clienterr::kTimeout;                // no answer in time
constexpr int kProtocol = kest::clienterr::kProtocol;              // answer not understood
constexpr int kConnectionLost = kest::clienterr::kConnectionLost;  // closed while waiting

// "not connected", "timeout", "protocol error", "connection lost"; nullptr
// for any other code.
char const* Name(int code);
// Any result as text for logs: "0 (ok)", "-19 (No such device)",
// "-1001 (not connected)".
std::string Describe(int code);
}  // namespace halerr
}  // namespace hal

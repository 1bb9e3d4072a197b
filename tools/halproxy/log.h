// Trace module and levels of the proxy. The numbers follow the framework's
// scale ("000" most severe), so --log-level maps onto SetMaxLevel and the
// syslog sink picks matching priorities.
#pragma once

#include "kest/trace.h"

namespace halproxy {
constexpr char const* kModule = "halproxy";
constexpr char const* kLevelError = "001";
constexpr char const* kLevelWarning = "002";
constexpr char const* kLevelInfo = "005";
constexpr char const* kLevelDebug = "007";
}  // namespace halproxy

#define HALPROXY_LOG(level, ...) KEST_TRACE(::halproxy::kModule, (level), __VA_ARGS__)

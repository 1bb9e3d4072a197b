// Every trace of the route manager goes through this one macro, so module,
// level and source name stay the same everywhere.
#pragma once

#include "kest/format.h"
#include "kest/trace.h"

namespace routemgr {
constexpr char const* kTraceModule = "RouteMgr";
constexpr char const* kTraceLevel = "005";
constexpr char const* kTraceSource = "routemgr";
}  // namespace routemgr

// The text is only built when the trace goes somewhere (traces off: a
// command costs no formatting).
#define RM_TRACE(text)                                                                            \
  do {                                                                                            \
    if (::kest::cTracepoint::Enabled(::routemgr::kTraceLevel))                                    \
      ::kest::cTracepoint::Call(::routemgr::kTraceModule, ::routemgr::kTraceLevel, 0, (text), "", \
                                ::routemgr::kTraceSource, __LINE__);                              \
  } while (0)
#define RM_TRACEF(...) RM_TRACE(::kest::FormatString(__VA_ARGS__))

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

#define RM_TRACE(text)                                                                  \
  ::kest::cTracepoint::Call(::routemgr::kTraceModule, ::routemgr::kTraceLevel, 0, (text), \
                            "", ::routemgr::kTraceSource, __LINE__)
#define RM_TRACEF(...) RM_TRACE(::kest::FormatString(__VA_ARGS__))

// How routectl reports the answer to each command: one line per command,
// as text ("ok", "rc=-101 Network is unreachable") or as a JSON object.
#pragma once

#include <cstdint>
#include <string>

#include "routeIO/route_protocol.h"

namespace routectl {

// The service answers DelRoute of a tag it does not hold with this code.
constexpr std::int32_t kUnknownTag = -100;

// What a result code means, or "" when nothing is known about it: the route
// library's own codes by their names, "unknown tag" for a DelRoute's -100,
// the HAL client's codes, and errno texts for the kernel's negative codes.
std::string CodeText(routeIO::routeCommand const& command, std::int32_t rc);

// "ok", or "rc=N" followed by the code's text when it has one.
std::string AnswerText(routeIO::routeCommand const& command, routeIO::routeResult const& result);

// {"line":3,"command":"route set","tag":"x","ok":false,"rc":-101,"error":"..."}
// line 0 (a command from the command line) leaves "line" out.
std::string AnswerJson(unsigned line, routeIO::routeCommand const& command,
                       routeIO::routeResult const& result);
// {"line":3,"ok":false,"syntax_error":"..."}
std::string SyntaxErrorJson(unsigned line, std::string const& error);

// One line of the HAL proxy's table ("unreachable 10.9.0.0/16 metric 0",
// "10.1.0.0/16 via 192.168.1.1 dev eth1 src 192.168.1.2 metric 0") as
// {"type":"unreachable","dst":"10.9.0.0/16","metric":0,"route":"<the line>"}:
// "type" only for unreachable (and other) routes, each "word value" pair as a member
// (metric a number), and the line itself.
std::string HalRouteJson(std::string const& line);

// A JSON string literal: quotes, backslashes, control characters and bytes
// that are not valid UTF-8 are escaped (the latter as \u00XX), so any tag
// gives valid JSON.
std::string JsonString(std::string const& text);

}  // namespace routectl

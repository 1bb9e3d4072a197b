// The command language of routectl, in the style of `ip route`:
//
//   gateway set TAG ADDR [dev IF] [type default|normal|NUMBER] [metric N]
//   gateway del TAG
//   route set TAG PREFIX via GW [dev IF] [src ADDR] [metric N]
//   route del TAG
//
// Parsing is a pure function (text in, command or error out, no I/O) so it
// can be fuzzed and is shared by the command line and batch input.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "routeIO/route_protocol.h"

namespace routectl {

// Gateway types on the wire; a gateway set without `type` is a normal one.
constexpr std::uint32_t kTypeDefault = 1;
constexpr std::uint32_t kTypeNormal = 2;

// Linux interface names are at most IFNAMSIZ - 1 bytes; anything longer can
// only fail in the kernel, so it is refused here with a clearer message.
constexpr std::size_t kMaxIfName = 15;

struct cParsed {
  enum Kind { kEmpty, kCommand, kError };
  Kind kind = kEmpty;
  routeIO::routeCommand command;
  std::string error;  // kError: what is wrong, naming the offending word
};

// One line of batch input: words split on blanks; a word beginning with '#'
// starts a comment that runs to the end of the line. Blank and comment-only
// lines are kEmpty.
cParsed ParseLine(std::string_view line);

// The words of one command, as given on the command line (no comments).
// No words at all is kEmpty.
cParsed ParseWords(std::vector<std::string_view> const& words);

// A dotted quad "a.b.c.d" as inet_pton reads it (decimal, 0..255, no leading
// zero: "010" is refused rather than read as 10 or as octal 8, no blanks);
// the result in host order, a.b.c.d = a<<24 | b<<16 | c<<8 | d.
bool ParseIPv4(std::string_view text, std::uint32_t& ip);

// "a.b.c.d/len", "a.b.c.d/m.m.m.m" (contiguous mask), "a.b.c.d" (a host,
// /32) or "default" (0.0.0.0/0). Host bits are kept: the service masks.
bool ParsePrefix(std::string_view text, std::uint32_t& network, std::uint32_t& netmask,
                 std::string& error);

// "route set backup", "gateway del wired", ...: what a command asks, for
// messages and JSON output.
std::string Verb(routeIO::routeCommand const& command);
std::string const& TagOf(routeIO::routeCommand const& command);

}  // namespace routectl

#pragma once

#include <cstdint>
#include <string>

namespace kest {

// "a.b.c.d:port" (TCP on IPv4) or "unix:/path" (stream Unix socket).
struct cAccessPoint {
  enum Kind { kTcp, kUnix } kind = kTcp;
  std::uint32_t ip = 0;  // host order
  std::uint16_t port = 0;
  std::string path;

  // Strict: a malformed text returns false with a reason naming it.
  static bool Parse(std::string const& text, cAccessPoint& out, std::string& error);
  std::string ToString() const;
};

}  // namespace kest

#pragma once

#include <cstdint>
#include <string>

struct sockaddr_storage;

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
  bool IsLoopback() const { return kind == kTcp && (ip >> 24) == 127; }
  // Fills a socket address for bind/connect; returns its length.
  unsigned ToSockaddr(sockaddr_storage& out) const;
};

}  // namespace kest

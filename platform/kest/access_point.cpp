#include "kest/access_point.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstring>

#include "kest/format.h"

namespace kest {
namespace {

constexpr char kUnixPrefix[] = "unix:";

// Decimal without sign, blanks or leading zeros (which some parsers read as
// octal), at most maxDigits digits and no larger than max.
bool ParseNumber(std::string const& s, unsigned maxDigits, unsigned long max, unsigned long& out) {
  if (s.empty() || s.size() > maxDigits) return false;
  if (s.size() > 1 && s[0] == '0') return false;
  unsigned long v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<unsigned long>(c - '0');
  }
  if (v > max) return false;
  out = v;
  return true;
}

bool ParseTcp(std::string const& text, cAccessPoint& out, std::string& why) {
  std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    why = "no port (expected a.b.c.d:port or unix:/path)";
    return false;
  }
  std::string host = text.substr(0, colon);
  unsigned long port = 0;
  if (!ParseNumber(text.substr(colon + 1), 5, 65535, port)) {
    why = "port is not a number from 0 to 65535";
    return false;
  }
  std::uint32_t ip = 0;
  std::size_t start = 0;
  for (int i = 0; i < 4; ++i) {
    std::size_t dot = host.find('.', start);
    bool last = i == 3;
    if (last != (dot == std::string::npos)) {
      why = "address is not a dotted quad";
      return false;
    }
    unsigned long octet = 0;
    std::string part = host.substr(start, last ? std::string::npos : dot - start);
    if (!ParseNumber(part, 3, 255, octet)) {
      why = "address is not a dotted quad";
      return false;
    }
    ip = ip << 8 | static_cast<std::uint32_t>(octet);
    start = dot + 1;
  }
  out = cAccessPoint{};
  out.kind = cAccessPoint::kTcp;
  out.ip = ip;
  out.port = static_cast<std::uint16_t>(port);
  return true;
}

bool ParseUnix(std::string const& text, cAccessPoint& out, std::string& why) {
  std::string path = text.substr(sizeof kUnixPrefix - 1);
  if (path.empty() || path[0] != '/') {
    why = "socket path is not absolute";
    return false;
  }
  if (path.size() >= sizeof(sockaddr_un{}.sun_path)) {
    why = FormatString("socket path is longer than %zu bytes", sizeof(sockaddr_un{}.sun_path) - 1);
    return false;
  }
  if (path.find('\0') != std::string::npos) {
    why = "socket path contains a NUL byte";
    return false;
  }
  out = cAccessPoint{};
  out.kind = cAccessPoint::kUnix;
  out.path = path;
  return true;
}

}  // namespace

bool cAccessPoint::Parse(std::string const& text, cAccessPoint& out, std::string& error) {
  std::string why;
  bool ok = text.compare(0, sizeof kUnixPrefix - 1, kUnixPrefix) == 0 ? ParseUnix(text, out, why)
                                                                      : ParseTcp(text, out, why);
  if (!ok) error = FormatString("malformed access point \"%s\": %s", text.c_str(), why.c_str());
  return ok;
}

std::string cAccessPoint::ToString() const {
  if (kind == kUnix) return kUnixPrefix + path;
  return FormatString("%u.%u.%u.%u:%u", ip >> 24, (ip >> 16) & 0xff, (ip >> 8) & 0xff, ip & 0xff,
                      static_cast<unsigned>(port));
}

unsigned cAccessPoint::ToSockaddr(sockaddr_storage& out) const {
  std::memset(&out, 0, sizeof out);
  if (kind == kUnix) {
    auto* un = reinterpret_cast<sockaddr_un*>(&out);
    un->sun_family = AF_UNIX;
    std::memcpy(un->sun_path, path.data(), path.size());  // Parse bounded the length
    return static_cast<unsigned>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  }
  auto* in = reinterpret_cast<sockaddr_in*>(&out);
  in->sin_family = AF_INET;
  in->sin_addr.s_addr = htonl(ip);
  in->sin_port = htons(port);
  return sizeof(sockaddr_in);
}

}  // namespace kest

#include "route.h"

namespace halproxy {

namespace {
// IFNAMSIZ less the terminating zero.
constexpr std::size_t kMaxInterfaceName = 15;
}  // namespace

std::string IpText(std::uint32_t ip) {
  return std::to_string(ip >> 24) + "." + std::to_string((ip >> 16) & 0xFF) + "." +
         std::to_string((ip >> 8) & 0xFF) + "." + std::to_string(ip & 0xFF);
}

std::uint32_t MaskOf(std::uint8_t prefixLen) {
  if (prefixLen == 0) return 0;
  if (prefixLen >= 32) return 0xFFFFFFFFu;
  return ~((1u << (32 - prefixLen)) - 1);
}

bool PrefixLength(std::uint32_t netmask, std::uint8_t& prefixLen) {
  std::uint8_t len = 0;
  while (len < 32 && (netmask & (0x80000000u >> len))) ++len;
  if (netmask != MaskOf(len)) return false;
  prefixLen = len;
  return true;
}

bool ValidInterfaceName(std::string const& name) {
  if (name.empty() || name.size() > kMaxInterfaceName || name == "." || name == "..") return false;
  for (char c : name) {
    if (c == '/' || c == ':' || c == ' ' || (c >= '\t' && c <= '\r') || c == '\0') return false;
  }
  return true;
}

std::string FormatRoute(cRoute const& r) {
  std::string s;
  if (r.type == eRouteType::kUnreachable) s = "unreachable ";
  if (r.type == eRouteType::kOther) s = "other ";
  if (r.prefixLen == 0 && r.dst == 0) {
    s += "default";
  } else {
    s += IpText(r.dst) + "/" + std::to_string(r.prefixLen);
  }
  if (r.gateway != 0) s += " via " + IpText(r.gateway);
  if (!r.ifname.empty()) s += " dev " + r.ifname;
  if (r.source != 0) s += " src " + IpText(r.source);
  s += " metric " + std::to_string(r.metric);
  return s;
}

}  // namespace halproxy

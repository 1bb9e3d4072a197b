// The proxy's routes in domain terms: parsed, masked addresses instead of the
// request's texts. Shared by both backends so their tables read the same.
#pragma once

#include <cstdint>
#include <string>

namespace halproxy {

// kOther: blackhole, prohibit and the like; only others install them.
enum class eRouteType { kUnicast, kUnreachable, kOther };

struct cRoute {
  std::uint32_t dst = 0;  // host order, always masked to prefixLen
  std::uint8_t prefixLen = 0;
  eRouteType type = eRouteType::kUnicast;
  std::uint32_t gateway = 0;  // 0: none (a link route, or any gateway in a removal)
  std::uint32_t source = 0;   // preferred source; 0: none
  std::string ifname;         // empty: the kernel picks the interface
  std::uint32_t metric = 0;

  bool operator==(cRoute const& o) const {
    return dst == o.dst && prefixLen == o.prefixLen && type == o.type && gateway == o.gateway &&
           source == o.source && ifname == o.ifname && metric == o.metric;
  }
  bool operator!=(cRoute const& o) const { return !(*this == o); }
};

// The kernel's key of a route in one table: NLM_F_REPLACE replaces the first
// route of the same key, and routes of one key keep their order of arrival.
inline bool SameKey(cRoute const& a, cRoute const& b) {
  return a.dst == b.dst && a.prefixLen == b.prefixLen && a.metric == b.metric;
}

// "10.1.0.0/16 via 192.168.1.1 dev eth1 src 192.168.1.2 metric 0",
// "default via 10.0.0.1 metric 5", "unreachable 10.9.0.0/16 metric 0";
// parts that are not set are left out.
std::string FormatRoute(cRoute const& route);

std::string IpText(std::uint32_t ip);
std::uint32_t MaskOf(std::uint8_t prefixLen);
// False for a netmask whose one bits are not contiguous from the top.
bool PrefixLength(std::uint32_t netmask, std::uint8_t& prefixLen);
// The kernel's rule for interface names: 1 to 15 bytes, not "." or "..",
// no '/', ':' or white space.
bool ValidInterfaceName(std::string const& name);

}  // namespace halproxy

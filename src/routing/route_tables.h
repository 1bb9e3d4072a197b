// What route clients told us: the gateways they announced and the custom
// routes they set, with the text each record contributes to the state dump.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "kest/types.h"

namespace kest {
class cChannel;
}

enum eGWType : std::uint32_t {
  UNDEFINED = 0,
  DEFAULT = 1,  // also installed as a default gateway of the system
  NORMAL = 2,
};

class cGWEntry {
 public:
  kest::s_socket_addr m_gatewayIP;
  std::string m_gatewayTag;
  std::string m_gatewayIF;
  std::uint32_t m_gatewayType = UNDEFINED;  // as the client sent it; unknown values kept
  std::uint32_t m_gatewayPrio = 0;

  std::string ToString(char const* prefix) const;
};

class cRouteEntry {
 public:
  kest::s_socket_addr m_network;  // as the client gave it, host bits included
  kest::s_socket_addr m_netmask;
  kest::s_socket_addr m_gatewayIP;
  kest::s_socket_addr m_preferredSourceIP;
  std::string m_gatewayIF;
  std::string m_routeTag;
  std::uint32_t m_routePrio = 0;

  std::string ToString(char const* prefix) const;
};

using GatewayTable = std::map<std::string, cGWEntry>;
using RouteTable = std::map<std::string, cRouteEntry>;
using RoutesByClientTable = std::map<kest::cChannel*, std::set<std::string>>;

// Gateway tags that make a WAN available to the configured routes.
namespace gwtag {
constexpr char const* kWired = "wired";
constexpr char const* kWireless = "wireless";
constexpr char const* kVpn = "vpn";
}  // namespace gwtag

std::string GatewayTypeName(std::uint32_t type);

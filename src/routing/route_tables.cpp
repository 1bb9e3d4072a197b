#include "routing/route_tables.h"

#include "kest/format.h"

std::string GatewayTypeName(std::uint32_t type) {
  switch (type) {
    case DEFAULT:
      return "DEFAULT";
    case UNDEFINED:
      return "UNDEFINED";
    case NORMAL:
      return "NORMAL";
    default:
      return kest::FormatString("UNKNOWN(%d)", static_cast<int>(type));
  }
}

std::string cGWEntry::ToString(char const* prefix) const {
  std::string indent = std::string(prefix) + " ";
  char const* in = indent.c_str();
  std::string out;
  out += kest::FormatString("%s- cGWEntry:\n", prefix);
  out += kest::FormatString("%s- Gateway Tag:   %s\n", in, m_gatewayTag.c_str());
  out += kest::FormatString("%s- m_gatewayIP:   %s\n", in, m_gatewayIP.GetIPString().c_str());
  out += kest::FormatString("%s- m_gatewayIF:   %s\n", in, m_gatewayIF.c_str());
  // Printed signed on purpose: the dump has always shown 4294967295 as -1.
  out += kest::FormatString("%s- m_gatewayPrio: %d\n", in, static_cast<int>(m_gatewayPrio));
  out += kest::FormatString("%s- m_gatewayType: %s\n", in, GatewayTypeName(m_gatewayType).c_str());
  return out;
}

std::string cRouteEntry::ToString(char const* prefix) const {
  std::string indent = std::string(prefix) + " ";
  char const* in = indent.c_str();
  std::string out;
  out += kest::FormatString("%s- cRouteEntry:\n", prefix);
  out += kest::FormatString("%s- Route Tag:           %s\n", in, m_routeTag.c_str());
  out += kest::FormatString("%s- Network:             %s/%s\n", in, m_network.GetIPString().c_str(),
                            m_netmask.GetIPString().c_str());
  out += kest::FormatString("%s- m_gatewayIP:         %s\n", in, m_gatewayIP.GetIPString().c_str());
  out += kest::FormatString("%s- m_preferredSourceIP: %s\n", in,
                            m_preferredSourceIP.GetIPString().c_str());
  out += kest::FormatString("%s- m_gatewayIF:         %s\n", in, m_gatewayIF.c_str());
  out += kest::FormatString("%s- m_routePrio:         %d\n", in, static_cast<int>(m_routePrio));
  return out;
}

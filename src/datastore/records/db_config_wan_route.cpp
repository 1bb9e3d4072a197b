#include "datastore/records/db_config_wan_route.h"

namespace dataIO {

cDBConfigWanRoute::cDBConfigWanRoute(std::string const& name, std::string const& dir)
    : cDBItem(name, dir) {
  SetDefault();
}

cDBConfigWanRoute::cDBConfigWanRoute(std::string const& name, std::string const& dir,
                                     kest::s_socket_addr network, kest::s_socket_addr netmask,
                                     kest::s_socket_addr gateway, std::uint8_t selector,
                                     std::string const& description)
    : cDBConfigWanRoute(name, dir) {
  m_network = network;
  m_netmask = netmask;
  m_gateway = gateway;
  m_gatewaySelector.Set(selector);
  m_description.Set(description);
}

namespace {
std::string SelectorText(std::uint8_t selector) {
  switch (selector) {
    case kGwSelectorWired:
      return "wired";
    case kGwSelectorWireless:
      return "wireless";
    case kGwSelectorVpn:
      return "vpn";
    case kGwSelectorOwn:
      return "own gateway";
    default:
      return "nothing (selector " + std::to_string(selector) + ")";
  }
}
}  // namespace

std::string cDBConfigWanRoute::ToString(std::string const& format) const {
  (void)format;
  std::string text = m_network.GetIPString() + "/" + m_netmask.GetIPString() + " via " +
                     SelectorText(m_gatewaySelector.Get()) + " (gw " + m_gateway.GetIPString() +
                     ")";
  if (!m_description.Get().empty()) text += " \"" + m_description.Get() + "\"";
  return text;
}

}  // namespace dataIO

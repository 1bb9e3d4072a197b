#include "routing/configured_route.h"

namespace {
cConfiguredRequest Through(cWanGateway const& wan, std::uint32_t metric) {
  return {wan.entry.m_gatewayIP, wan.entry.m_gatewayIF, metric, wan.avail};
}
}  // namespace

std::optional<cConfiguredRequest> ConfiguredRequest(cWanGateways const& gateways,
                                                    dataIO::cDBConfigWanRoute const& route) {
  switch (route.m_gatewaySelector.Get()) {
    case dataIO::kGwSelectorWired:
      return Through(gateways.wired, 0);
    case dataIO::kGwSelectorWireless:
      return Through(gateways.wireless, 0);
    // Only VPN routes take the gateway's priority: several VPNs may offer
    // the same prefix and the metric orders them.
    case dataIO::kGwSelectorVpn:
      return Through(gateways.vpn, gateways.vpn.entry.m_gatewayPrio);
    case dataIO::kGwSelectorOwn:
      return cConfiguredRequest{route.m_gateway, "", 0, true};
    default:
      return std::nullopt;
  }
}

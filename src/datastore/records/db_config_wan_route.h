// One routing entry of a WAN setup's configuration: a destination network and
// the gateway to send it through.
#pragma once

#include "datastore/records/record_codec.h"
#include "values/s_basic_int.h"

namespace dataIO {

// Which gateway a configured route goes through. Values outside 1..4 select
// nothing and the entry is skipped.
enum eGwSelector : std::uint8_t {
  kGwSelectorNone = 0,
  kGwSelectorWired = 1,     // gateway announced under the tag "wired"
  kGwSelectorWireless = 2,  // ... under "wireless"
  kGwSelectorVpn = 3,       // ... under "vpn"
  kGwSelectorOwn = 4,       // the entry's own gateway address
};

class cDBConfigWanRoute : public cDBItem {
 public:
  DATAIO_RECORD(cDBConfigWanRoute)

  // The name is the entry's key in its routing directory.
  explicit cDBConfigWanRoute(std::string const& name = "", std::string const& dir = "");
  cDBConfigWanRoute(std::string const& name, std::string const& dir, kest::s_socket_addr network,
                    kest::s_socket_addr netmask, kest::s_socket_addr gateway,
                    std::uint8_t selector, std::string const& description);
  // An empty entry that routes nothing: 0.0.0.0/0.0.0.0, no selector.
  void SetDefault();
  // "10.10.0.0/255.255.0.0 via wired (gw 0.0.0.0) "office LAN"", whatever the
  // format; the description part is left out when empty.
  std::string ToString(std::string const& format) const override;

  kest::s_socket_addr m_network;  // only the address part is used
  kest::s_socket_addr m_netmask;
  kest::s_socket_addr m_gateway;  // used with kGwSelectorOwn only
  kest::s_uint8 m_gatewaySelector;
  kest::s_string m_description;   // free text for the people reading the configuration

  template <typename Self>
  static auto Members(Self& self) {
    return std::tie(self.m_network, self.m_netmask, self.m_gateway, self.m_gatewaySelector,
                    self.m_description);
  }
};

}  // namespace dataIO

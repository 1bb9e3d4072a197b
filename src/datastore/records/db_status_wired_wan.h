// Status of the wired WAN port. Mirrored in full; the route manager reads none
// of it.
#pragma once

#include "datastore/records/record_codec.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

namespace dataIO {

class cDBStatusWiredWan : public cDBItem {
 public:
  DATAIO_RECORD(cDBStatusWiredWan)
  static constexpr char kItemName[] = "WiredWanStatus";
  // Ethernet's payload size, what the port runs with until told otherwise.
  static constexpr std::uint16_t kDefaultMtu = 1500;

  cDBStatusWiredWan();
  // Link down, addresses unset, DHCP on (how the port comes up), standard MTU.
  void SetDefault();
  std::string ToString(std::string const& format) const override;

  kest::s_uint8 m_linkState;
  kest::s_bool m_cablePlugged;
  kest::s_bool m_dhcpEnabled;
  kest::s_string m_interfaceName;
  kest::s_socket_addr m_ipAddress;
  kest::s_socket_addr m_netmask;
  kest::s_socket_addr m_gateway;
  kest::s_socket_addr m_dns1;
  kest::s_socket_addr m_dns2;
  kest::s_socket_addr m_dhcpServer;
  kest::s_uint16 m_mtu;
  kest::s_uint8 m_linkSpeed;
  StringSet m_searchDomains;
  kest::s_uint64 m_rxBytes;
  kest::s_uint64 m_txBytes;
  kest::s_uint8 m_duplex;
  kest::s_uint8 m_addressSource;
  LeaseMap m_leases;

  template <typename Self>
  static auto Members(Self& self) {
    return std::tie(self.m_linkState, self.m_cablePlugged, self.m_dhcpEnabled,
                    self.m_interfaceName, self.m_ipAddress, self.m_netmask, self.m_gateway,
                    self.m_dns1, self.m_dns2, self.m_dhcpServer, self.m_mtu, self.m_linkSpeed,
                    self.m_searchDomains, self.m_rxBytes, self.m_txBytes, self.m_duplex,
                    self.m_addressSource, self.m_leases);
  }
};

}  // namespace dataIO

// Status of the wired WAN port. Mirrored in full; the route manager reads none
// of it.
#pragma once

#include "datastore/records/lease_entry.h"
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
  std::string ToString(std::string const& format) const override;

  // Defaults: link down, addresses unset, DHCP on (how the port comes up),
  // standard MTU.
#define DATAIO_STATUS_WIRED_WAN(X)         \
  X(kest::s_uint8, m_linkState, 0)         \
  X(kest::s_bool, m_cablePlugged, false)   \
  X(kest::s_bool, m_dhcpEnabled, true)     \
  X(kest::s_string, m_interfaceName, "")   \
  X(kest::s_socket_addr, m_ipAddress, {})  \
  X(kest::s_socket_addr, m_netmask, {})    \
  X(kest::s_socket_addr, m_gateway, {})    \
  X(kest::s_socket_addr, m_dns1, {})       \
  X(kest::s_socket_addr, m_dns2, {})       \
  X(kest::s_socket_addr, m_dhcpServer, {}) \
  X(kest::s_uint16, m_mtu, kDefaultMtu)    \
  X(kest::s_uint8, m_linkSpeed, 0)         \
  X(StringSet, m_searchDomains, {})        \
  X(kest::s_uint64, m_rxBytes, 0)          \
  X(kest::s_uint64, m_txBytes, 0)          \
  X(kest::s_uint8, m_duplex, 0)            \
  X(kest::s_uint8, m_addressSource, 0)     \
  X(LeaseMap, m_leases, {})
  DATAIO_MEMBERS(DATAIO_STATUS_WIRED_WAN)
};

}  // namespace dataIO

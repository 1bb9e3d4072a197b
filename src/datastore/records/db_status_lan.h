// Status of the LAN side. Mirrored in full; the route manager reads none of it.
#pragma once

#include "datastore/records/lease_entry.h"
#include "datastore/records/record_codec.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

namespace dataIO {

class cDBStatusLan : public cDBItem {
 public:
  DATAIO_RECORD(cDBStatusLan)
  static constexpr char kItemName[] = "LanStatus";

  cDBStatusLan();
  std::string ToString(std::string const& format) const override;

  // Defaults: link down, no ports, no addresses, no leases.
#define DATAIO_STATUS_LAN(X)              \
  X(kest::s_bool, m_linkUp, false)        \
  X(kest::s_uint8, m_portMask, 0)         \
  X(StringSet, m_interfaces, {})          \
  X(kest::s_uint64, m_rxBytes, 0)         \
  X(kest::s_uint64, m_txBytes, 0)         \
  X(kest::s_socket_addr, m_ipAddress, {}) \
  X(kest::s_socket_addr, m_netmask, {})   \
  X(kest::s_string, m_hostName, "")       \
  X(kest::s_uint8, m_dhcpMode, 0)         \
  X(kest::s_uint8, m_leaseCount, 0)       \
  X(LeaseMap, m_leases, {})
  DATAIO_MEMBERS(DATAIO_STATUS_LAN)
};

}  // namespace dataIO

// Status of the LAN side. Mirrored in full; the route manager reads none of it.
#pragma once

#include "datastore/records/record_codec.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

namespace dataIO {

class cDBStatusLan : public cDBItem {
 public:
  DATAIO_RECORD(cDBStatusLan)
  static constexpr char kItemName[] = "LanStatus";

  cDBStatusLan();
  // Link down, no ports, no addresses, no leases.
  void SetDefault();
  std::string ToString(std::string const& format) const override;

  kest::s_bool m_linkUp;
  kest::s_uint8 m_portMask;
  StringSet m_interfaces;
  kest::s_uint64 m_rxBytes;
  kest::s_uint64 m_txBytes;
  kest::s_socket_addr m_ipAddress;
  kest::s_socket_addr m_netmask;
  kest::s_string m_hostName;
  kest::s_uint8 m_dhcpMode;
  kest::s_uint8 m_leaseCount;
  LeaseMap m_leases;

  template <typename Self>
  static auto Members(Self& self) {
    return std::tie(self.m_linkUp, self.m_portMask, self.m_interfaces, self.m_rxBytes,
                    self.m_txBytes, self.m_ipAddress, self.m_netmask, self.m_hostName,
                    self.m_dhcpMode, self.m_leaseCount, self.m_leases);
  }
};

}  // namespace dataIO

#include "datastore/records/db_status_lan.h"

#include "datastore/records/directories.h"

namespace dataIO {

cDBStatusLan::cDBStatusLan() : cDBItem(kItemName, kNetworkStatusDir) { SetDefault(); }

void cDBStatusLan::SetDefault() {
  m_linkUp.Set(false);
  m_portMask.Set(0);
  m_interfaces.clear();
  m_rxBytes.Set(0);
  m_txBytes.Set(0);
  m_ipAddress = m_netmask = kest::s_socket_addr();
  m_hostName.Set("");
  m_dhcpMode.Set(0);
  m_leaseCount.Set(0);
  m_leases.clear();
}

std::string cDBStatusLan::ToString(std::string const& format) const {
  (void)format;
  return record_codec::RecordText(*this);
}

}  // namespace dataIO

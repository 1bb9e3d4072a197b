#include "datastore/records/db_status_wired_wan.h"

#include "datastore/records/directories.h"

namespace dataIO {

cDBStatusWiredWan::cDBStatusWiredWan() : cDBItem(kItemName, kNetworkStatusDir) { SetDefault(); }

void cDBStatusWiredWan::SetDefault() {
  m_linkState.Set(0);
  m_cablePlugged.Set(false);
  m_dhcpEnabled.Set(true);
  m_interfaceName.Set("");
  m_ipAddress = m_netmask = m_gateway = m_dns1 = m_dns2 = m_dhcpServer = kest::s_socket_addr();
  m_mtu.Set(kDefaultMtu);
  m_linkSpeed.Set(0);
  m_searchDomains.clear();
  m_rxBytes.Set(0);
  m_txBytes.Set(0);
  m_duplex.Set(0);
  m_addressSource.Set(0);
  m_leases.clear();
}

std::string cDBStatusWiredWan::ToString(std::string const& format) const {
  (void)format;
  return record_codec::RecordText(*this);
}

}  // namespace dataIO

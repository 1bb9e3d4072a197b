#include "datastore/records/db_status_wireless_wan.h"

#include "datastore/records/directories.h"

namespace dataIO {

cDBStatusWirelessWan::cDBStatusWirelessWan() : cDBItem(kItemName, kNetworkStatusDir) {
  SetDefault();
}

void cDBStatusWirelessWan::SetDefault() {
  m_linkState.Set(0);
  m_simPresent.Set(false);
  m_roaming.Set(false);
  m_signalStrength.Set(kNotMeasured);
  m_signalQuality.Set(kNotMeasured);
  m_signalToNoise.Set(kNotMeasured);
  for (kest::s_string* s : {&m_operatorName, &m_technology, &m_imei, &m_iccid, &m_apn,
                            &m_interfaceName, &m_modemModel, &m_modemFirmware, &m_pinState,
                            &m_lastError})
    s->Set("");
  m_ipAddress = m_netmask = m_gateway = m_dns = kest::s_socket_addr();
  m_rxBytes.Set(0);
  m_txBytes.Set(0);
  m_registrationState.Set(0);
}

std::string cDBStatusWirelessWan::ToString(std::string const& format) const {
  (void)format;
  return record_codec::RecordText(*this);
}

}  // namespace dataIO

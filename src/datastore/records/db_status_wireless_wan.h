// Status of the wireless (mobile) WAN. Mirrored in full; the route manager
// reads none of it.
#pragma once

#include "datastore/records/record_codec.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

namespace dataIO {

class cDBStatusWirelessWan : public cDBItem {
 public:
  DATAIO_RECORD(cDBStatusWirelessWan)
  static constexpr char kItemName[] = "WirelessWanStatus";
  // Signal values are dB/dBm and never reach the most negative byte, so it
  // marks "not measured".
  static constexpr std::int8_t kNotMeasured = -128;

  cDBStatusWirelessWan();
  // Nothing registered, no SIM seen, signal not measured, no addresses.
  void SetDefault();
  std::string ToString(std::string const& format) const override;

  kest::s_uint8 m_linkState;
  kest::s_bool m_simPresent;
  kest::s_bool m_roaming;
  kest::s_int8 m_signalStrength;
  kest::s_int8 m_signalQuality;
  kest::s_int8 m_signalToNoise;
  kest::s_string m_operatorName;
  kest::s_string m_technology;
  kest::s_string m_imei;
  kest::s_string m_iccid;
  kest::s_socket_addr m_ipAddress;
  kest::s_socket_addr m_netmask;
  kest::s_socket_addr m_gateway;
  kest::s_socket_addr m_dns;
  kest::s_string m_apn;
  kest::s_string m_interfaceName;
  kest::s_uint64 m_rxBytes;
  kest::s_uint64 m_txBytes;
  kest::s_string m_modemModel;
  kest::s_string m_modemFirmware;
  kest::s_uint8 m_registrationState;
  kest::s_string m_pinState;
  kest::s_string m_lastError;

  template <typename Self>
  static auto Members(Self& self) {
    return std::tie(self.m_linkState, self.m_simPresent, self.m_roaming, self.m_signalStrength,
                    self.m_signalQuality, self.m_signalToNoise, self.m_operatorName,
                    self.m_technology, self.m_imei, self.m_iccid, self.m_ipAddress,
                    self.m_netmask, self.m_gateway, self.m_dns, self.m_apn, self.m_interfaceName,
                    self.m_rxBytes, self.m_txBytes, self.m_modemModel, self.m_modemFirmware,
                    self.m_registrationState, self.m_pinState, self.m_lastError);
  }
};

}  // namespace dataIO

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
  std::string ToString(std::string const& format) const override;

  // Defaults: nothing registered, no SIM seen, signal not measured, no
  // addresses.
#define DATAIO_STATUS_WIRELESS_WAN(X)             \
  X(kest::s_uint8, m_linkState, 0)                \
  X(kest::s_bool, m_simPresent, false)            \
  X(kest::s_bool, m_roaming, false)               \
  X(kest::s_int8, m_signalStrength, kNotMeasured) \
  X(kest::s_int8, m_signalQuality, kNotMeasured)  \
  X(kest::s_int8, m_signalToNoise, kNotMeasured)  \
  X(kest::s_string, m_operatorName, "")           \
  X(kest::s_string, m_technology, "")             \
  X(kest::s_string, m_imei, "")                   \
  X(kest::s_string, m_iccid, "")                  \
  X(kest::s_socket_addr, m_ipAddress, {})         \
  X(kest::s_socket_addr, m_netmask, {})           \
  X(kest::s_socket_addr, m_gateway, {})           \
  X(kest::s_socket_addr, m_dns, {})               \
  X(kest::s_string, m_apn, "")                    \
  X(kest::s_string, m_interfaceName, "")          \
  X(kest::s_uint64, m_rxBytes, 0)                 \
  X(kest::s_uint64, m_txBytes, 0)                 \
  X(kest::s_string, m_modemModel, "")             \
  X(kest::s_string, m_modemFirmware, "")          \
  X(kest::s_uint8, m_registrationState, 0)        \
  X(kest::s_string, m_pinState, "")               \
  X(kest::s_string, m_lastError, "")
  DATAIO_MEMBERS(DATAIO_STATUS_WIRELESS_WAN)
};

}  // namespace dataIO

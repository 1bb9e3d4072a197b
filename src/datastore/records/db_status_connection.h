// Overall connection status of the device, as the data manager publishes it.
#pragma once

#include "datastore/records/record_codec.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

namespace dataIO {

class cDBStatusConnection : public cDBItem {
 public:
  DATAIO_RECORD(cDBStatusConnection)
  static constexpr char kItemName[] = "ConnectionStatus";

  cDBStatusConnection();
  // Nothing known yet: offline, no WAN in use, no uptime.
  void SetDefault();
  std::string ToString(std::string const& format) const override;

  kest::s_bool m_online;
  kest::s_uint8 m_activeWan;
  kest::s_uint32 m_onlineSeconds;

  template <typename Self>
  static auto Members(Self& self) {
    return std::tie(self.m_online, self.m_activeWan, self.m_onlineSeconds);
  }
};

}  // namespace dataIO

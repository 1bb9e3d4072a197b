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
  std::string ToString(std::string const& format) const override;

  // Defaults: nothing known yet, offline, no WAN in use, no uptime.
#define DATAIO_STATUS_CONNECTION(X) \
  X(kest::s_bool, m_online, false)  \
  X(kest::s_uint8, m_activeWan, 0)  \
  X(kest::s_uint32, m_onlineSeconds, 0)
  DATAIO_MEMBERS(DATAIO_STATUS_CONNECTION)
};

}  // namespace dataIO

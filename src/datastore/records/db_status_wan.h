// WAN status: which WAN setup is in force. The route manager reads the setup
// name to find that setup's routing configuration.
#pragma once

#include "datastore/records/record_codec.h"
#include "values/s_basic_int.h"

namespace dataIO {

class cDBStatusWan : public cDBItem {
 public:
  DATAIO_RECORD(cDBStatusWan)
  static constexpr char kItemName[] = "WanStatus";

  cDBStatusWan();
  std::string ToString(std::string const& format) const override;

  std::string const& WanSetupName() const { return m_wanSetupName.Get(); }

  // Defaults: no WAN state reported and no setup name known (empty until the
  // data manager says which setup is in force).
#define DATAIO_STATUS_WAN(X)      \
  X(kest::s_uint8, m_wanState, 0) \
  X(kest::s_string, m_wanSetupName, "")
  DATAIO_MEMBERS(DATAIO_STATUS_WAN)
};

}  // namespace dataIO

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
  // No WAN state reported and no setup name known (empty until the data
  // manager says which setup is in force).
  void SetDefault();
  std::string ToString(std::string const& format) const override;

  std::string const& WanSetupName() const { return m_wanSetupName.Get(); }

  kest::s_uint8 m_wanState;
  kest::s_string m_wanSetupName;

  template <typename Self>
  static auto Members(Self& self) {
    return std::tie(self.m_wanState, self.m_wanSetupName);
  }
};

}  // namespace dataIO

#include "datastore/records/db_status_wan.h"

#include "datastore/records/directories.h"

namespace dataIO {

cDBStatusWan::cDBStatusWan() : cDBItem(kItemName, kNetworkStatusDir) { SetDefault(); }

void cDBStatusWan::SetDefault() {
  m_wanState.Set(0);
  m_wanSetupName.Set("");
}

std::string cDBStatusWan::ToString(std::string const& format) const {
  (void)format;
  return record_codec::RecordText(*this);
}

}  // namespace dataIO

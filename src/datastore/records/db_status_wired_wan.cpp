#include "datastore/records/db_status_wired_wan.h"

#include "datastore/records/directories.h"

namespace dataIO {

cDBStatusWiredWan::cDBStatusWiredWan() : cDBItem(kItemName, kNetworkStatusDir) { SetDefault(); }

std::string cDBStatusWiredWan::ToString(std::string const& format) const {
  (void)format;
  return record_codec::RecordText(GetName(), Members());
}

}  // namespace dataIO

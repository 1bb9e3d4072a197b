#include "datastore/records/db_status_wan.h"

#include "datastore/records/directories.h"

namespace dataIO {

cDBStatusWan::cDBStatusWan() : cDBItem(kItemName, kNetworkStatusDir) { SetDefault(); }

std::string cDBStatusWan::ToString(std::string const& format) const {
  (void)format;
  return record_codec::RecordText(GetName(), Members());
}

}  // namespace dataIO

#include "datastore/records/db_status_wireless_wan.h"

#include "datastore/records/directories.h"

namespace dataIO {

cDBStatusWirelessWan::cDBStatusWirelessWan() : cDBItem(kItemName, kNetworkStatusDir) {
  SetDefault();
}

std::string cDBStatusWirelessWan::ToString(std::string const& format) const {
  (void)format;
  return record_codec::RecordText(GetName(), Members());
}

}  // namespace dataIO

#include "datastore/records/db_status_lan.h"

#include "datastore/records/directories.h"

namespace dataIO {

cDBStatusLan::cDBStatusLan() : cDBItem(kItemName, kNetworkStatusDir) { SetDefault(); }

std::string cDBStatusLan::ToString(std::string const& format) const {
  (void)format;
  return record_codec::RecordText(GetName(), Members());
}

}  // namespace dataIO

#include "datastore/records/db_status_connection.h"

#include "datastore/records/directories.h"

namespace dataIO {

cDBStatusConnection::cDBStatusConnection() : cDBItem(kItemName, kNetworkStatusDir) { SetDefault(); }

std::string cDBStatusConnection::ToString(std::string const& format) const {
  (void)format;
  return record_codec::RecordText(GetName(), Members());
}

}  // namespace dataIO

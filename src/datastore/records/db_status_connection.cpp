#include "datastore/records/db_status_connection.h"

#include "datastore/records/directories.h"

namespace dataIO {

cDBStatusConnection::cDBStatusConnection() : cDBItem(kItemName, kNetworkStatusDir) { SetDefault(); }

void cDBStatusConnection::SetDefault() {
  m_online.Set(false);
  m_activeWan.Set(0);
  m_onlineSeconds.Set(0);
}

std::string cDBStatusConnection::ToString(std::string const& format) const {
  (void)format;
  return record_codec::RecordText(*this);
}

}  // namespace dataIO

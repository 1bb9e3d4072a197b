#include "values/db_collection.h"

namespace dataIO {

cDBCollection::cDBCollection(std::string const& dir) : m_dir(dir) {}

cDBCollection::~cDBCollection() = default;

bool cDBCollection::ReceiveRecord(cDBItem const& record) {
  kest::cSerializeBuffer buf;
  if (!record.Serialize(buf)) return false;
  return ReceiveItem(record.GetName(), buf);
}

}  // namespace dataIO

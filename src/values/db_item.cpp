#include "values/db_item.h"

namespace dataIO {

cDBItem::cDBItem(std::string const& name, std::string const& dir) {
  SetName(name);
  SetDir(dir);
}

cDBItem::~cDBItem() = default;

std::string const& cDBItem::GetName() const { return m_name.Get(); }
std::string const& cDBItem::GetDir() const { return m_dir.Get(); }

bool cDBItem::GetInfo(kest::cMap<kest::s_string, kest::s_string>& info) const {
  (void)info;
  return false;
}

// Content equality: two records are the same when they would travel as the
// same bytes; name and directory are identity, not content.
bool cDBItem::Equals(cDBItem const& other) const {
  if (TypeName() != other.TypeName()) return false;
  kest::cSerializeBuffer mine, theirs;
  const bool okMine = Serialize(mine);
  const bool okTheirs = other.Serialize(theirs);
  return okMine == okTheirs && mine.Bytes() == theirs.Bytes();
}

void cDBItem::SetName(std::string const& name) { m_name.Set(name); }
void cDBItem::SetDir(std::string const& dir) { m_dir.Set(dir); }

}  // namespace dataIO

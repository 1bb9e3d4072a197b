// Base of every data-store record.
#pragma once

#include <set>
#include <string>

#include "kest/types.h"

namespace dataIO {

class cDBItem : public kest::ISerialize {
 public:
  KEST_GARBAGE_COLLECTABLE
  cDBItem(std::string const& name, std::string const& dir);
  cDBItem(const cDBItem&) = default;
  cDBItem& operator=(const cDBItem&) = default;
  ~cDBItem() override;

  int Version() const override { return 1; }
  std::string TypeName() const override { return "cDBItem"; }
  using kest::ISerialize::Deserialize;
  using kest::ISerialize::Serialize;

  // Record-specific: identity of the item in the store.
  virtual std::string const& GetName() const;
  virtual std::string const& GetDir() const;
  virtual bool GetInfo(kest::cMap<kest::s_string, kest::s_string>& info) const;
  // Record-specific: a heap copy, and equality of content (not identity).
  virtual cDBItem* Clone() const = 0;
  virtual bool Equals(cDBItem const& other) const;  // default: same type and same bytes
  virtual bool HasLinks() const { return false; }
  virtual void GetLinks(std::set<std::string>& links) const { (void)links; }
  virtual bool HasKey() const { return false; }
  virtual std::string GetKey() const { return std::string(); }
  virtual int GetRank() const { return 0; }

  void SetName(std::string const& name);
  void SetDir(std::string const& dir);

 private:
  kest::s_string m_name;
  kest::s_string m_dir;
};

}  // namespace dataIO

// Base of a set of records mirrored from one data-store directory. The data
// client fills the received copies during a synchronisation, reports it, and
// then makes the received copies the ones in force.
#pragma once

#include <string>

#include "kest/serialize.h"
#include "kest/types.h"
#include "values/db_item.h"

namespace dataIO {

class cDBCollection {
 public:
  explicit cDBCollection(std::string const& dir);
  virtual ~cDBCollection();
  cDBCollection(const cDBCollection&) = delete;
  cDBCollection& operator=(const cDBCollection&) = delete;

  // Start of a synchronisation: the received copies start as the ones in force.
  virtual void BeginSync() {}
  // One record of the directory, as delivered: decoded from the cursor into
  // its received copy (the cursor ends after the record). False, copy
  // unchanged, for an unknown item or bytes that do not decode as a whole.
  virtual bool ReceiveItem(std::string const& name, kest::cSerializeBuffer& bytes) = 0;
  // ReceiveItem with a record built in memory, under the record's own name.
  bool ReceiveRecord(cDBItem const& record);
  // The record is gone from the store.
  virtual void RemoveItem(std::string const& name) = 0;
  // After the synchronisation has been reported: received becomes in force.
  virtual void EndSync() = 0;
  // True when the synchronisation being reported changed the content.
  virtual bool HasChanged() = 0;

  std::string const& GetDir() const { return m_dir.Get(); }
  bool IsSynced() const { return m_synced; }
  void SetSynced(bool synced) { m_synced = synced; }

 private:
  kest::s_string m_dir;
  bool m_synced = false;
};

}  // namespace dataIO

// One address lease as the status records list it. A plain value: no base,
// no version header of its own (its members carry theirs).
#pragma once

#include "datastore/records/record_codec.h"
#include "values/s_basic_int.h"

namespace dataIO {

class leaseEntry {
 public:
#define DATAIO_LEASE_ENTRY(X)       \
  X(kest::s_string, m_hostName, "") \
  X(kest::s_uint8, m_leaseState, 0) \
  X(kest::s_string, m_macAddress, "")
  DATAIO_FIELDS(DATAIO_LEASE_ENTRY)
};

}  // namespace dataIO

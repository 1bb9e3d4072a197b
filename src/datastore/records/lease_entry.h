// One address lease as the status records list it. A plain value: no base,
// no version header of its own (its members carry theirs).
#pragma once

#include <string>
#include <tuple>

#include "kest/types.h"
#include "values/s_basic_int.h"

namespace dataIO {

class leaseEntry {
 public:
  kest::s_string m_hostName;
  kest::s_uint8 m_leaseState;
  kest::s_string m_macAddress;

  template <typename Self>
  static auto Members(Self& self) {
    return std::tie(self.m_hostName, self.m_leaseState, self.m_macAddress);
  }
};

}  // namespace dataIO

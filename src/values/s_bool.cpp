#include "values/s_bool.h"

namespace kest {

bool s_bool::Serialize(cSerializeBuffer& buf) const {
  SerializeVersion(buf);
  buf.WriteU8(m_value);
  return true;
}

bool s_bool::Deserialize(cSerializeBuffer& buf) {
  if (DeserializeVersion(buf) != 1) return false;
  return buf.ReadU8(m_value);
}

std::string s_bool::ToString(std::string const& format) const {
  (void)format;
  return m_value != 0 ? "true" : "false";
}

}  // namespace kest

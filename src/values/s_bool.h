// Serialisable boolean: the one-byte version header, then one byte (0 or 1).
#pragma once

#include <cstdint>
#include <string>

#include "kest/serialize.h"

namespace kest {

class s_bool : public ISerialize {
 public:
  KEST_GARBAGE_COLLECTABLE
  s_bool() = default;
  s_bool(bool v) : m_value(v ? 1 : 0) {}

  int Version() const override { return 1; }
  std::string TypeName() const override { return "s_bool"; }
  using ISerialize::Deserialize;
  using ISerialize::Serialize;
  bool Serialize(cSerializeBuffer& buf) const override;
  // Keeps the byte as received: any non-zero byte reads as true.
  bool Deserialize(cSerializeBuffer& buf) override;
  // "true" or "false", whatever the format.
  std::string ToString(std::string const& format) const override;

  bool Get() const { return m_value != 0; }
  void Set(bool v) { m_value = v ? 1 : 0; }
  bool operator==(const s_bool& o) const { return Get() == o.Get(); }
  bool operator!=(const s_bool& o) const { return Get() != o.Get(); }

 private:
  std::uint8_t m_value = 0;
};

}  // namespace kest

// Serialisable fixed-width integers. Binary form: the one-byte version header,
// then the value's bytes little-endian, with no length or type prefix.
#pragma once

#include <cstdint>
#include <iomanip>
#include <sstream>
#include <string>
#include <type_traits>

#include "kest/serialize.h"

namespace kest {

template <typename T>
class s_basic_int : public ISerialize {
  static_assert(std::is_integral_v<T> && sizeof(T) <= 8, "fixed-width integers only");

 public:
  KEST_GARBAGE_COLLECTABLE
  s_basic_int() = default;
  s_basic_int(T v) : m_value(v) {}

  int Version() const override { return 1; }
  std::string TypeName() const override { return "s_basic_int"; }
  using ISerialize::Deserialize;
  using ISerialize::Serialize;

  bool Serialize(cSerializeBuffer& buf) const override {
    SerializeVersion(buf);
    using U = std::make_unsigned_t<T>;
    const U u = static_cast<U>(m_value);
    std::uint8_t bytes[sizeof(T)];
    for (std::size_t i = 0; i < sizeof(T); ++i)
      bytes[i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(u) >> (8 * i));
    buf.Write(bytes, sizeof(T));
    return true;
  }

  // Only version 1 exists; anything else is refused before a byte of the
  // value is looked at, and a refused read leaves the value as it was.
  bool Deserialize(cSerializeBuffer& buf) override {
    if (DeserializeVersion(buf) != 1) return false;
    std::uint8_t bytes[sizeof(T)];
    if (!buf.Read(bytes, sizeof(T))) return false;
    std::uint64_t u = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
      u |= static_cast<std::uint64_t>(bytes[i]) << (8 * i);
    m_value = static_cast<T>(static_cast<std::make_unsigned_t<T>>(u));
    return true;
  }

  // "hex": 0x + upper-case hex, at least two digits; "hex2": the same without
  // 0x; "02".."16": decimal zero-padded to that width; anything else decimal.
  std::string ToString(std::string const& format) const override {
    std::ostringstream os;
    const std::uint64_t v = Printable();
    if (format == "hex" || format == "hex2") {
      if (format == "hex") os << "0x";
      os << std::hex << std::uppercase << std::setfill('0') << std::setw(2) << v;
    } else if (int width = PadWidth(format); width != 0) {
      os << std::setfill('0') << std::setw(width) << v;
    } else {
      os << v;
    }
    return os.str();
  }

  T Get() const { return m_value; }
  void Set(T v) { m_value = v; }
  bool operator==(const s_basic_int& o) const { return m_value == o.m_value; }
  bool operator!=(const s_basic_int& o) const { return m_value != o.m_value; }

 private:
  // Numbers only, never characters. A negative 8-bit value shows as its
  // sign-extended 16-bit pattern (-1 -> 65535), the form the rest of the
  // framework's tools print for it.
  std::uint64_t Printable() const {
    if constexpr (std::is_signed_v<T> && sizeof(T) == 1)
      return static_cast<std::uint16_t>(static_cast<std::int16_t>(m_value));
    else
      return static_cast<std::uint64_t>(m_value);
  }

  // Width of a "02".."16" format, 0 when the format is not one of those.
  static int PadWidth(std::string const& format) {
    if (format.size() != 2 || format[0] < '0' || format[0] > '9' || format[1] < '0' ||
        format[1] > '9')
      return 0;
    const int width = (format[0] - '0') * 10 + (format[1] - '0');
    return width >= 2 && width <= 16 ? width : 0;
  }

  T m_value = 0;
};

#define KEST_NAMED_INT(NAME, TYPE)                          \
  class NAME : public s_basic_int<TYPE> {                   \
   public:                                                  \
    KEST_GARBAGE_COLLECTABLE                                \
    using s_basic_int<TYPE>::s_basic_int;                   \
    int Version() const override { return 1; }              \
    std::string TypeName() const override { return #NAME; } \
  };

KEST_NAMED_INT(s_int8, std::int8_t)
KEST_NAMED_INT(s_uint8, std::uint8_t)
KEST_NAMED_INT(s_uint16, std::uint16_t)
KEST_NAMED_INT(s_uint32, std::uint32_t)
KEST_NAMED_INT(s_uint64, std::uint64_t)

#undef KEST_NAMED_INT

}  // namespace kest

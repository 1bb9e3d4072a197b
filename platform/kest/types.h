// The framework's own serialisable values: strings, IPv4 socket addresses
// and ordered maps.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "kest/serialize.h"

namespace kest {

// Length-prefixed string: version header, u32 length (LE), bytes.
class s_string : public ISerialize {
 public:
  KEST_GARBAGE_COLLECTABLE
  // A deserialised string longer than this is refused: a hostile or corrupt
  // length must not make the reader allocate gigabytes.
  static constexpr std::uint32_t kMaxLength = 16 * 1024;

  s_string() = default;
  s_string(std::string v) : m_value(std::move(v)) {}
  s_string(char const* v) : m_value(v) {}
  int Version() const override { return 1; }
  std::string TypeName() const override { return "s_string"; }
  bool Serialize(cSerializeBuffer& buf) const override;
  bool Deserialize(cSerializeBuffer& buf) override;
  std::string ToString(std::string const& format) const override;
  using ISerialize::Deserialize;
  using ISerialize::Serialize;

  const std::string& Get() const { return m_value; }
  void Set(std::string v) { m_value = std::move(v); }
  operator const std::string&() const { return m_value; }
  bool operator<(const s_string& o) const { return m_value < o.m_value; }
  bool operator==(const s_string& o) const { return m_value == o.m_value; }
  bool operator!=(const s_string& o) const { return m_value != o.m_value; }

 private:
  std::string m_value;
};

// IPv4 address and port. The address is kept in host order as a plain
// number (GetIP), so masking is a bitwise AND on any host.
class s_socket_addr : public ISerialize {
 public:
  KEST_GARBAGE_COLLECTABLE
  s_socket_addr() = default;
  s_socket_addr(std::string const& dotted, std::uint16_t port);
  s_socket_addr(std::uint32_t ip, std::uint16_t port) : m_port(port), m_ip(ip) {}
  // Strict dotted quad; malformed text returns false and leaves 0.0.0.0:port.
  bool InitFromString(std::string const& dotted, std::uint16_t port);
  std::uint32_t GetIP() const { return m_ip; }
  std::uint16_t GetPort() const { return m_port; }
  std::string GetIPString() const;

  int Version() const override { return 1; }
  std::string TypeName() const override { return "s_socket_addr"; }
  bool Serialize(cSerializeBuffer& buf) const override;  // version, u32 ip LE, u16 port LE
  bool Deserialize(cSerializeBuffer& buf) override;
  std::string ToString(std::string const& format) const override;  // "a.b.c.d:port"
  using ISerialize::Deserialize;
  using ISerialize::Serialize;

  bool operator<(const s_socket_addr& o) const {
    return m_ip != o.m_ip ? m_ip < o.m_ip : m_port < o.m_port;
  }
  bool operator==(const s_socket_addr& o) const { return m_ip == o.m_ip && m_port == o.m_port; }
  bool operator!=(const s_socket_addr& o) const { return !(*this == o); }

 private:
  // The port first: it fits beside the reference count, the address after it.
  std::uint16_t m_port = 0;
  std::uint32_t m_ip = 0;
};
static_assert(sizeof(void*) != 8 || sizeof(s_socket_addr) == 16,
              "an address value no longer fits in 16 bytes: see IGarbageCollectable's count");

// Ordered map from K to V; nothing beyond std::map.
template <typename K, typename V>
class cMap : public std::map<K, V> {
 public:
  using std::map<K, V>::map;
};

}  // namespace kest

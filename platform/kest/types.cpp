#include "kest/types.h"

namespace kest {

bool s_string::Serialize(cSerializeBuffer& buf) const {
  // Refused on the writing side too, so nothing is ever written that the
  // reading side would reject.
  if (m_value.size() > kMaxLength) return false;
  SerializeVersion(buf);
  buf.WriteU32(static_cast<std::uint32_t>(m_value.size()));
  buf.Write(m_value.data(), m_value.size());
  return true;
}

bool s_string::Deserialize(cSerializeBuffer& buf) {
  if (DeserializeVersion(buf) != 1) return false;
  std::uint32_t len = 0;
  if (!buf.ReadU32(len)) return false;
  if (len > kMaxLength || len > buf.Remaining()) return false;
  std::string v(len, '\0');
  if (!buf.Read(v.data(), len)) return false;
  m_value = std::move(v);
  return true;
}

std::string s_string::ToString(std::string const& format) const {
  (void)format;
  return m_value;
}

namespace {

// Strict "a.b.c.d": four decimal parts of one to three digits, each 0-255,
// nothing before, between or after them.
bool ParseDottedQuad(std::string const& text, std::uint32_t& ip) {
  std::uint32_t result = 0;
  std::size_t pos = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (pos >= text.size() || text[pos] != '.') return false;
      ++pos;
    }
    std::size_t digits = 0;
    unsigned value = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      if (++digits > 3) return false;
      value = value * 10 + static_cast<unsigned>(text[pos] - '0');
      ++pos;
    }
    if (digits == 0 || value > 255) return false;
    result = (result << 8) | value;
  }
  if (pos != text.size()) return false;
  ip = result;
  return true;
}

}  // namespace

s_socket_addr::s_socket_addr(std::string const& dotted, std::uint16_t port) {
  InitFromString(dotted, port);
}

bool s_socket_addr::InitFromString(std::string const& dotted, std::uint16_t port) {
  m_port = port;
  std::uint32_t ip = 0;
  bool ok = ParseDottedQuad(dotted, ip);
  m_ip = ok ? ip : 0;
  return ok;
}

std::string s_socket_addr::GetIPString() const {
  // Digits written straight into a buffer: this runs four times for every
  // route request, and four to_string temporaries appended one by one cost
  // twenty times as much.
  char buf[16];  // "255.255.255.255"
  char* p = buf;
  for (int shift = 24; shift >= 0; shift -= 8) {
    unsigned const v = (m_ip >> shift) & 0xFFu;
    if (shift != 24) *p++ = '.';
    if (v >= 100) *p++ = static_cast<char>('0' + v / 100);
    if (v >= 10) *p++ = static_cast<char>('0' + v / 10 % 10);
    *p++ = static_cast<char>('0' + v % 10);
  }
  return std::string(buf, p);
}

bool s_socket_addr::Serialize(cSerializeBuffer& buf) const {
  SerializeVersion(buf);
  buf.WriteU32(m_ip);
  buf.WriteU16(m_port);
  return true;
}

bool s_socket_addr::Deserialize(cSerializeBuffer& buf) {
  if (DeserializeVersion(buf) != 1) return false;
  std::uint32_t ip = 0;
  std::uint16_t port = 0;
  if (!buf.ReadU32(ip) || !buf.ReadU16(port)) return false;
  m_ip = ip;
  m_port = port;
  return true;
}

std::string s_socket_addr::ToString(std::string const& format) const {
  (void)format;
  return GetIPString() + ":" + std::to_string(m_port);
}

}  // namespace kest

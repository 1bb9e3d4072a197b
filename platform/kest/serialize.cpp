#include "kest/serialize.h"

#include <cstring>

namespace kest {

cSerializeBuffer::cSerializeBuffer(const void* data, std::size_t len) { Write(data, len); }

void cSerializeBuffer::Write(const void* data, std::size_t len) {
  if (len == 0) return;
  const auto* p = static_cast<const std::uint8_t*>(data);
  m_bytes.insert(m_bytes.end(), p, p + len);
}

bool cSerializeBuffer::Read(void* data, std::size_t len) {
  if (len > Remaining()) return false;
  if (len != 0) std::memcpy(data, m_bytes.data() + m_cursor, len);
  m_cursor += len;
  return true;
}

namespace {

// Byte images are built arithmetically so the host's own order never shows.
template <typename T>
void WriteLE(cSerializeBuffer& buf, T v) {
  std::uint8_t b[sizeof(T)];
  for (std::size_t i = 0; i < sizeof(T); ++i) b[i] = static_cast<std::uint8_t>(v >> (8 * i));
  buf.Write(b, sizeof(T));
}

template <typename T>
bool ReadLE(cSerializeBuffer& buf, T& v) {
  std::uint8_t b[sizeof(T)];
  if (!buf.Read(b, sizeof(T))) return false;
  T r = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i)
    r = static_cast<T>(r | (static_cast<T>(b[i]) << (8 * i)));
  v = r;
  return true;
}

}  // namespace

void cSerializeBuffer::WriteU8(std::uint8_t v) { Write(&v, 1); }
void cSerializeBuffer::WriteU16(std::uint16_t v) { WriteLE(*this, v); }
void cSerializeBuffer::WriteU32(std::uint32_t v) { WriteLE(*this, v); }
void cSerializeBuffer::WriteU64(std::uint64_t v) { WriteLE(*this, v); }
bool cSerializeBuffer::ReadU8(std::uint8_t& v) { return Read(&v, 1); }
bool cSerializeBuffer::ReadU16(std::uint16_t& v) { return ReadLE(*this, v); }
bool cSerializeBuffer::ReadU32(std::uint32_t& v) { return ReadLE(*this, v); }
bool cSerializeBuffer::ReadU64(std::uint64_t& v) { return ReadLE(*this, v); }

namespace {
// Function-local so objects created during static initialisation count too.
long& LiveObjects() {
  static long count = 0;
  return count;
}
}  // namespace

void GC::Add(void* obj) {
  (void)obj;
  ++LiveObjects();
}

void GC::Remove(void* obj) {
  (void)obj;
  --LiveObjects();
}

long GC::LiveCount() { return LiveObjects(); }

void IGarbageCollectable::AddRef() {
  if (m_refCount != kPinned) ++m_refCount;
}

void IGarbageCollectable::Release() {
  if (m_refCount == kPinned) return;
  if (m_refCount <= 1) {
    delete this;
    return;
  }
  --m_refCount;
}

int IGarbageCollectable::GetRefCount() const { return m_refCount; }

bool ISerialize::Serialize(xmlNode*& node, char const* name) const {
  (void)node;
  (void)name;
  return false;
}

bool ISerialize::Deserialize(xmlNode*& node, std::string& error) {
  (void)node;
  error = "Deserialize(xml) not implemented";
  return false;
}

void ISerialize::SerializeVersion(cSerializeBuffer& buf) const {
  buf.WriteU8(static_cast<std::uint8_t>(Version()));
}

int ISerialize::DeserializeVersion(cSerializeBuffer& buf) {
  std::uint8_t v = 0;
  if (!buf.ReadU8(v)) return -1;
  return v;
}

}  // namespace kest

// Serialisation base of the framework: the byte buffer, the reference-counted
// base and the serialisable interface every value and record implements.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct _xmlNode;
typedef struct _xmlNode xmlNode;  // libxml2's node type; only the type is used

namespace kest {

// Append-only byte buffer with a read cursor. All multi-byte helpers are
// little-endian whatever the host's byte order, so the wire is the same on
// the ARM target, x86 hosts and big-endian machines.
class cSerializeBuffer {
 public:
  cSerializeBuffer() = default;
  cSerializeBuffer(const void* data, std::size_t len);

  void Write(const void* data, std::size_t len);
  // Copies len bytes at the cursor; a read past the end returns false and
  // neither copies nor moves the cursor.
  bool Read(void* data, std::size_t len);

  void WriteU8(std::uint8_t v);
  void WriteU16(std::uint16_t v);
  void WriteU32(std::uint32_t v);
  void WriteU64(std::uint64_t v);
  bool ReadU8(std::uint8_t& v);
  bool ReadU16(std::uint16_t& v);
  bool ReadU32(std::uint32_t& v);
  bool ReadU64(std::uint64_t& v);

  const std::uint8_t* Data() const { return m_bytes.data(); }
  std::size_t Size() const { return m_bytes.size(); }
  std::size_t Cursor() const { return m_cursor; }
  std::size_t Remaining() const { return m_bytes.size() - m_cursor; }
  bool AtEnd() const { return m_cursor == m_bytes.size(); }
  void Rewind() { m_cursor = 0; }
  void Clear() {
    m_bytes.clear();
    m_cursor = 0;
  }
  std::vector<std::uint8_t>& Bytes() { return m_bytes; }
  const std::vector<std::uint8_t>& Bytes() const { return m_bytes; }

 private:
  std::vector<std::uint8_t> m_bytes;
  std::size_t m_cursor = 0;
};

// Live-object bookkeeping of collectable objects allocated on the heap, so
// tests can see leaks: class-specific new/delete (KEST_GARBAGE_COLLECTABLE)
// count up on allocation and call Remove after destruction, before the
// memory is freed.
class GC {
 public:
  static void Add(void* obj);
  static void Remove(void* obj);
  static long LiveCount();
};

class IGarbageCollectable {
 public:
  IGarbageCollectable() = default;
  // A copy is a new object with its own single reference; assignment copies
  // content only, never the count of the object assigned from.
  IGarbageCollectable(const IGarbageCollectable&) {}
  IGarbageCollectable& operator=(const IGarbageCollectable&) { return *this; }
  virtual ~IGarbageCollectable() = default;
  virtual void AddRef();
  virtual void Release();  // deletes the object when the count drops to 0
  virtual int GetRefCount() const;

 private:
  // A value has a handful of holders at most. Sixteen bits leave a derived
  // value's members room beside the count: an address is 16 bytes instead of
  // 24 on a 64-bit host (12 instead of 16 on the router), four of them in
  // every route. A count that would overflow stays at its maximum, and the
  // object is then never freed rather than freed while still held.
  static constexpr std::uint16_t kPinned = 0xFFFF;
  std::uint16_t m_refCount = 1;
};

class ISerialize : public IGarbageCollectable {
 public:
  ~ISerialize() override = default;
  virtual void GARBAGE_COLLECTABLE_missing() = 0;
  virtual int Version() const { return 0; }
  virtual std::string TypeName() const { return "?"; }
  virtual bool Serialize(cSerializeBuffer& buf) const = 0;
  virtual bool Deserialize(cSerializeBuffer& buf) = 0;
  virtual bool Serialize(xmlNode*& node, char const* name) const;
  virtual bool Deserialize(xmlNode*& node, std::string& error);
  virtual std::string ToString(std::string const& format) const = 0;

  // Version header: exactly one byte holding the object's Version() (0..255),
  // written before the object's own bytes. A reader that gets nothing (short
  // buffer) sees version -1, which no class accepts.
  void SerializeVersion(cSerializeBuffer& buf) const;
  int DeserializeVersion(cSerializeBuffer& buf);
};

}  // namespace kest

// Every concrete serialisable class uses this once in its public section.
#define KEST_GARBAGE_COLLECTABLE                 \
  void GARBAGE_COLLECTABLE_missing() override {} \
  static void* operator new(std::size_t n) {     \
    void* p = ::operator new(n);                 \
    ::kest::GC::Add(p);                          \
    return p;                                    \
  }                                              \
  static void operator delete(void* p) {         \
    ::kest::GC::Remove(p);                       \
    ::operator delete(p);                        \
  }

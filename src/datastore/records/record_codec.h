// Binary and text form shared by the data-store records. A record is its own
// version header (one byte, 1) followed by its members in declaration order,
// each in its own binary form. Containers are a u32 LE element count followed
// by the elements (maps: key, then value).
#pragma once

#include <set>
#include <string>
#include <tuple>

#include "datastore/records/lease_entry.h"
#include "kest/types.h"
#include "values/db_item.h"

namespace dataIO {

using StringSet = std::set<kest::s_string>;
using LeaseMap = kest::cMap<kest::s_socket_addr, leaseEntry>;

namespace record_codec {

inline bool Write(kest::cSerializeBuffer& buf, kest::ISerialize const& v) { return v.Serialize(buf); }
inline bool Read(kest::cSerializeBuffer& buf, kest::ISerialize& v) { return v.Deserialize(buf); }
bool Write(kest::cSerializeBuffer& buf, StringSet const& v);
bool Read(kest::cSerializeBuffer& buf, StringSet& v);
bool Write(kest::cSerializeBuffer& buf, leaseEntry const& v);
bool Read(kest::cSerializeBuffer& buf, leaseEntry& v);
bool Write(kest::cSerializeBuffer& buf, LeaseMap const& v);
bool Read(kest::cSerializeBuffer& buf, LeaseMap& v);

inline std::string Text(kest::ISerialize const& v) { return v.ToString(""); }
inline std::string Text(kest::s_string const& v) { return "\"" + v.Get() + "\""; }
std::string Text(StringSet const& v);
std::string Text(leaseEntry const& v);
std::string Text(LeaseMap const& v);

template <typename... M>
bool WriteAll(kest::cSerializeBuffer& buf, M const&... members) {
  return (Write(buf, members) && ...);
}

template <typename... M>
bool ReadAll(kest::cSerializeBuffer& buf, M&... members) {
  return (Read(buf, members) && ...);
}

template <typename... M>
std::string TextAll(M const&... members) {
  std::string out;
  ((out += (out.empty() ? "" : ", ") + Text(members)), ...);
  return out;
}

template <typename R>
bool SerializeRecord(R const& record, kest::cSerializeBuffer& buf) {
  record.SerializeVersion(buf);
  return std::apply([&buf](auto const&... m) { return WriteAll(buf, m...); }, R::Members(record));
}

// Decodes into a copy so a record that fails half-way is rejected whole and
// the target keeps its previous content.
template <typename R>
bool DeserializeRecord(R& record, kest::cSerializeBuffer& buf) {
  R next(record);
  if (next.DeserializeVersion(buf) != 1) return false;
  if (!std::apply([&buf](auto&... m) { return ReadAll(buf, m...); }, R::Members(next))) return false;
  record = next;
  return true;
}

// "<item name> {member, member, ...}"
template <typename R>
std::string RecordText(R const& record) {
  return record.GetName() + " {" +
         std::apply([](auto const&... m) { return TextAll(m...); }, R::Members(record)) + "}";
}

}  // namespace record_codec
}  // namespace dataIO

// The operations every record class shares; used once in its public section.
#define DATAIO_RECORD(CLASS)                                                      \
  KEST_GARBAGE_COLLECTABLE                                                        \
  CLASS(const CLASS&) = default;                                                  \
  CLASS& operator=(const CLASS&) = default;                                       \
  int Version() const override { return 1; }                                      \
  std::string TypeName() const override { return #CLASS; }                        \
  using cDBItem::Serialize;                                                       \
  using cDBItem::Deserialize;                                                     \
  bool Serialize(kest::cSerializeBuffer& buf) const override {                    \
    return record_codec::SerializeRecord(*this, buf);                             \
  }                                                                               \
  bool Deserialize(kest::cSerializeBuffer& buf) override {                        \
    return record_codec::DeserializeRecord(*this, buf);                           \
  }                                                                               \
  cDBItem* Clone() const override { return new CLASS(*this); }

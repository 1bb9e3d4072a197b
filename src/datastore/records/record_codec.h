// Binary and text form shared by the data-store records. A record is its own
// version header (one byte, 1) followed by its members in declaration order,
// each in its own binary form. Containers are a u32 LE element count followed
// by the elements (maps: key, then value).
//
// Each record declares its members once, as a list of (type, name, default)
// that DATAIO_MEMBERS turns into the declarations, SetDefault and the table
// of members that one shared walk serialises, reads and prints; equality
// compares the serialised bytes. A member is thus in all of them or in none.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "kest/types.h"
#include "values/db_item.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

namespace dataIO {

class leaseEntry;
using StringSet = std::set<kest::s_string>;
using LeaseMap = kest::cMap<kest::s_socket_addr, leaseEntry>;

namespace record_codec {

// One member of a record as the shared walk sees it.
struct cMember {
  enum eKind : std::uint8_t { kValue, kString, kStringSet, kLeaseMap } kind;
  void const* at;  // the member: a kest::ISerialize for kValue and kString
};
inline cMember Ref(kest::ISerialize const& v) { return {cMember::kValue, &v}; }
// Strings are quoted in the text.
inline cMember Ref(kest::s_string const& v) {
  return {cMember::kString, static_cast<kest::ISerialize const*>(&v)};
}
inline cMember Ref(StringSet const& v) { return {cMember::kStringSet, &v}; }
inline cMember Ref(LeaseMap const& v) { return {cMember::kLeaseMap, &v}; }

// A record's table of members, as its Members() returns it.
struct cMembers {
  template <std::size_t N>
  cMembers(std::array<cMember, N> const& a) : at(a.data()), count(N) {}
  cMember const* at;
  std::size_t count;
};

// Put a member's default in place: Reset(member, DEFAULT), DEFAULT {} for
// addresses, sets and maps.
void Reset(kest::s_string& v, char const* d);
inline void Reset(kest::s_bool& v, bool d) { v.Set(d); }
inline void Reset(kest::s_int8& v, std::int8_t d) { v.Set(d); }
inline void Reset(kest::s_uint8& v, std::uint8_t d) { v.Set(d); }
inline void Reset(kest::s_uint16& v, std::uint16_t d) { v.Set(d); }
inline void Reset(kest::s_uint32& v, std::uint32_t d) { v.Set(d); }
inline void Reset(kest::s_uint64& v, std::uint64_t d) { v.Set(d); }
inline void Reset(kest::s_socket_addr& v, kest::s_socket_addr const& d) { v = d; }
inline void Reset(StringSet& v, StringSet const&) { v.clear(); }  // always empty
void Reset(LeaseMap& v, LeaseMap const&);                         // always empty

// The version header, then the members.
bool WriteRecord(kest::ISerialize const& record, kest::cSerializeBuffer& buf, cMembers members);
// Reads into the members (taken from a record that is not const); false when
// the version is not 1 or a member does not decode, with the members then
// partly read: callers decode into a copy.
bool ReadRecord(kest::ISerialize& record, kest::cSerializeBuffer& buf, cMembers members);
// "<item name> {member, member, ...}"
std::string RecordText(std::string const& name, cMembers members);

}  // namespace record_codec
}  // namespace dataIO

// The parts of a member list entry X(TYPE, NAME, DEFAULT).
#define DATAIO_MEMBER_DECLARE(TYPE, NAME, DEFAULT) TYPE NAME;
#define DATAIO_MEMBER_DEFAULT(TYPE, NAME, DEFAULT) ::dataIO::record_codec::Reset(NAME, DEFAULT);
#define DATAIO_MEMBER_REF(TYPE, NAME, DEFAULT) ::dataIO::record_codec::Ref(NAME),
#define DATAIO_MEMBER_COUNT(TYPE, NAME, DEFAULT) +1

// A plain value's members and their table; they start as their types'
// defaults (DEFAULT is documentation only).
#define DATAIO_FIELDS(LIST)                                                                  \
  LIST(DATAIO_MEMBER_DECLARE)                                                                \
  std::array<::dataIO::record_codec::cMember, 0 LIST(DATAIO_MEMBER_COUNT)> Members() const { \
    return {{LIST(DATAIO_MEMBER_REF)}};                                                      \
  }

// A record's members and its SetDefault, which puts every DEFAULT in place.
#define DATAIO_MEMBERS(LIST) \
  DATAIO_FIELDS(LIST)        \
  void SetDefault() { LIST(DATAIO_MEMBER_DEFAULT) }

// The operations every record class shares; used once in its public section.
#define DATAIO_RECORD(CLASS)                                                  \
  KEST_GARBAGE_COLLECTABLE                                                    \
  CLASS(const CLASS&) = default;                                              \
  CLASS& operator=(const CLASS&) = default;                                   \
  int Version() const override { return 1; }                                  \
  std::string TypeName() const override { return #CLASS; }                    \
  using cDBItem::Serialize;                                                   \
  using cDBItem::Deserialize;                                                 \
  bool Serialize(kest::cSerializeBuffer& buf) const override {                \
    return record_codec::WriteRecord(*this, buf, Members());                  \
  }                                                                           \
  /* Decodes into a copy so a record that fails half-way is rejected whole */ \
  /* and keeps its previous content. */                                       \
  bool Deserialize(kest::cSerializeBuffer& buf) override {                    \
    CLASS next(*this);                                                        \
    if (!record_codec::ReadRecord(next, buf, next.Members())) return false;   \
    *this = next;                                                             \
    return true;                                                              \
  }                                                                           \
  cDBItem* Clone() const override { return new CLASS(*this); }

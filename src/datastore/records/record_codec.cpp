#include "datastore/records/record_codec.h"

#include "datastore/records/lease_entry.h"

namespace dataIO::record_codec {

namespace {

// Every element takes at least one byte, so a count larger than what is left
// is corrupt; refusing it early keeps a hostile count from costing anything.
bool ReadCount(kest::cSerializeBuffer& buf, std::uint32_t& count) {
  return buf.ReadU32(count) && count <= buf.Remaining();
}

bool Write(kest::cSerializeBuffer& buf, cMembers members);
bool Read(kest::cSerializeBuffer& buf, cMembers members);
std::string Text(cMembers members);

bool Write(kest::cSerializeBuffer& buf, StringSet const& v) {
  buf.WriteU32(static_cast<std::uint32_t>(v.size()));
  for (auto const& s : v)
    if (!s.Serialize(buf)) return false;
  return true;
}

bool Read(kest::cSerializeBuffer& buf, StringSet& v) {
  std::uint32_t count = 0;
  if (!ReadCount(buf, count)) return false;
  StringSet next;
  for (std::uint32_t i = 0; i < count; ++i) {
    kest::s_string s;
    if (!s.Deserialize(buf)) return false;
    next.insert(std::move(s));
  }
  v = std::move(next);
  return true;
}

bool Write(kest::cSerializeBuffer& buf, LeaseMap const& v) {
  buf.WriteU32(static_cast<std::uint32_t>(v.size()));
  for (auto const& [addr, lease] : v)
    if (!addr.Serialize(buf) || !Write(buf, lease.Members())) return false;
  return true;
}

bool Read(kest::cSerializeBuffer& buf, LeaseMap& v) {
  std::uint32_t count = 0;
  if (!ReadCount(buf, count)) return false;
  LeaseMap next;
  for (std::uint32_t i = 0; i < count; ++i) {
    kest::s_socket_addr addr;
    leaseEntry lease;
    if (!addr.Deserialize(buf) || !Read(buf, lease.Members())) return false;
    next.insert_or_assign(addr, lease);
  }
  v = std::move(next);
  return true;
}

std::string Text(kest::s_string const& v) { return "\"" + v.Get() + "\""; }

std::string Text(StringSet const& v) {
  std::string out = "{";
  for (auto const& s : v) out += (out.size() > 1 ? ", " : "") + Text(s);
  return out + "}";
}

std::string Text(LeaseMap const& v) {
  std::string out = "{";
  for (auto const& [addr, lease] : v)
    out += (out.size() > 1 ? ", " : "") + addr.GetIPString() + " (" + Text(lease.Members()) + ")";
  return out + "}";
}

bool Write(kest::cSerializeBuffer& buf, cMembers members) {
  for (std::size_t i = 0; i < members.count; ++i) {
    void const* at = members.at[i].at;
    bool ok = false;
    switch (members.at[i].kind) {
      case cMember::kValue:
      case cMember::kString:
        ok = static_cast<kest::ISerialize const*>(at)->Serialize(buf);
        break;
      case cMember::kStringSet:
        ok = Write(buf, *static_cast<StringSet const*>(at));
        break;
      case cMember::kLeaseMap:
        ok = Write(buf, *static_cast<LeaseMap const*>(at));
        break;
    }
    if (!ok) return false;
  }
  return true;
}

// The members come from a record that is not const (see ReadRecord).
bool Read(kest::cSerializeBuffer& buf, cMembers members) {
  for (std::size_t i = 0; i < members.count; ++i) {
    void* at = const_cast<void*>(members.at[i].at);
    bool ok = false;
    switch (members.at[i].kind) {
      case cMember::kValue:
      case cMember::kString:
        ok = static_cast<kest::ISerialize*>(at)->Deserialize(buf);
        break;
      case cMember::kStringSet:
        ok = Read(buf, *static_cast<StringSet*>(at));
        break;
      case cMember::kLeaseMap:
        ok = Read(buf, *static_cast<LeaseMap*>(at));
        break;
    }
    if (!ok) return false;
  }
  return true;
}

std::string Text(cMembers members) {
  std::string out;
  for (std::size_t i = 0; i < members.count; ++i) {
    void const* at = members.at[i].at;
    if (i > 0) out += ", ";
    switch (members.at[i].kind) {
      case cMember::kValue:
        out += static_cast<kest::ISerialize const*>(at)->ToString("");
        break;
      case cMember::kString:
        out += Text(*static_cast<kest::s_string const*>(static_cast<kest::ISerialize const*>(at)));
        break;
      case cMember::kStringSet:
        out += Text(*static_cast<StringSet const*>(at));
        break;
      case cMember::kLeaseMap:
        out += Text(*static_cast<LeaseMap const*>(at));
        break;
    }
  }
  return out;
}

}  // namespace

void Reset(kest::s_string& v, char const* d) { v.Set(d); }
void Reset(LeaseMap& v, LeaseMap const&) { v.clear(); }

bool WriteRecord(kest::ISerialize const& record, kest::cSerializeBuffer& buf, cMembers members) {
  record.SerializeVersion(buf);
  return Write(buf, members);
}

bool ReadRecord(kest::ISerialize& record, kest::cSerializeBuffer& buf, cMembers members) {
  return record.DeserializeVersion(buf) == 1 && Read(buf, members);
}

std::string RecordText(std::string const& name, cMembers members) {
  return name + " {" + Text(members) + "}";
}

}  // namespace dataIO::record_codec

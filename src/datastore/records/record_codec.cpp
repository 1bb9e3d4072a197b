#include "datastore/records/record_codec.h"

namespace dataIO::record_codec {

namespace {

// Every element takes at least one byte, so a count larger than what is left
// is corrupt; refusing it early keeps a hostile count from costing anything.
bool ReadCount(kest::cSerializeBuffer& buf, std::uint32_t& count) {
  return buf.ReadU32(count) && count <= buf.Remaining();
}

}  // namespace

bool Write(kest::cSerializeBuffer& buf, StringSet const& v) {
  buf.WriteU32(static_cast<std::uint32_t>(v.size()));
  for (auto const& s : v)
    if (!Write(buf, s)) return false;
  return true;
}

bool Read(kest::cSerializeBuffer& buf, StringSet& v) {
  std::uint32_t count = 0;
  if (!ReadCount(buf, count)) return false;
  StringSet next;
  for (std::uint32_t i = 0; i < count; ++i) {
    kest::s_string s;
    if (!Read(buf, s)) return false;
    next.insert(std::move(s));
  }
  v = std::move(next);
  return true;
}

bool Write(kest::cSerializeBuffer& buf, leaseEntry const& v) {
  return std::apply([&buf](auto const&... m) { return WriteAll(buf, m...); },
                    leaseEntry::Members(v));
}

bool Read(kest::cSerializeBuffer& buf, leaseEntry& v) {
  leaseEntry next(v);
  if (!std::apply([&buf](auto&... m) { return ReadAll(buf, m...); }, leaseEntry::Members(next)))
    return false;
  v = next;
  return true;
}

bool Write(kest::cSerializeBuffer& buf, LeaseMap const& v) {
  buf.WriteU32(static_cast<std::uint32_t>(v.size()));
  for (auto const& [addr, lease] : v)
    if (!Write(buf, addr) || !Write(buf, lease)) return false;
  return true;
}

bool Read(kest::cSerializeBuffer& buf, LeaseMap& v) {
  std::uint32_t count = 0;
  if (!ReadCount(buf, count)) return false;
  LeaseMap next;
  for (std::uint32_t i = 0; i < count; ++i) {
    kest::s_socket_addr addr;
    leaseEntry lease;
    if (!Read(buf, addr) || !Read(buf, lease)) return false;
    next.insert_or_assign(addr, lease);
  }
  v = std::move(next);
  return true;
}

std::string Text(StringSet const& v) {
  std::string out = "{";
  for (auto const& s : v) out += (out.size() > 1 ? ", " : "") + Text(s);
  return out + "}";
}

std::string Text(leaseEntry const& v) {
  return "(" + std::apply([](auto const&... m) { return TextAll(m...); }, leaseEntry::Members(v)) +
         ")";
}

std::string Text(LeaseMap const& v) {
  std::string out = "{";
  for (auto const& [addr, lease] : v)
    out += (out.size() > 1 ? ", " : "") + addr.GetIPString() + " " + Text(lease);
  return out + "}";
}

}  // namespace dataIO::record_codec

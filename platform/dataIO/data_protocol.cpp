#include "dataIO/data_protocol.h"

#include "kest/format.h"
#include "kest/types.h"

namespace dataIO {
namespace proto {

namespace {

constexpr std::uint8_t kEntryPut = 1;
constexpr std::uint8_t kEntryRemove = 2;
// Fixed part of a sync body besides the directory: tag, flags, count.
constexpr std::size_t kSyncFixed = 4 + 1 + 4;
// Smallest entry on the wire: kind and an empty name (version + length).
constexpr std::size_t kMinEntry = 1 + 1 + 4;

void PutString(kest::cSerializeBuffer& out, std::string const& text) {
  kest::s_string(text).Serialize(out);
}

std::size_t StringSize(std::string const& text) { return 1 + 4 + text.size(); }

bool GetString(kest::cSerializeBuffer& in, std::string& text, char const* what,
               std::string& error) {
  kest::s_string value;
  if (!value.Deserialize(in)) {
    error = kest::FormatString("bad %s at byte %zu", what, in.Cursor());
    return false;
  }
  text = value.Get();
  return true;
}

bool AtEnd(kest::cSerializeBuffer& in, std::string& error) {
  if (in.AtEnd()) return true;
  error = kest::FormatString("%zu trailing bytes", in.Remaining());
  return false;
}

std::size_t EntrySize(cSyncEntry const& e) {
  return 1 + StringSize(e.name) + (e.remove ? 0 : 4 + e.bytes.size());
}

void PutEntry(kest::cSerializeBuffer& out, cSyncEntry const& e) {
  out.WriteU8(e.remove ? kEntryRemove : kEntryPut);
  PutString(out, e.name);
  if (!e.remove) {
    out.WriteU32(static_cast<std::uint32_t>(e.bytes.size()));
    if (!e.bytes.empty()) out.Write(e.bytes.data(), e.bytes.size());
  }
}

void PutSyncHeader(kest::cSerializeBuffer& out, cSync const& msg, std::uint8_t flags,
                   std::size_t count) {
  PutString(out, msg.dir);
  out.WriteU32(msg.tag);
  out.WriteU8(flags);
  out.WriteU32(static_cast<std::uint32_t>(count));
}

}  // namespace

void Encode(cSubscribe const& msg, kest::cSerializeBuffer& out) {
  PutString(out, msg.dir);
  out.WriteU32(msg.tag);
}

void Encode(cUnsubscribe const& msg, kest::cSerializeBuffer& out) { PutString(out, msg.dir); }

void Encode(cSync const& msg, kest::cSerializeBuffer& out) {
  PutSyncHeader(out, msg, msg.flags, msg.entries.size());
  for (auto const& e : msg.entries) PutEntry(out, e);
}

void Encode(cDumpRequest const& msg, kest::cSerializeBuffer& out) { PutString(out, msg.dir); }

void Encode(cDumpResult const& msg, kest::cSerializeBuffer& out) {
  PutString(out, msg.dir);
  out.WriteU8(msg.ok ? 1 : 0);
}

void Encode(cRefused const& msg, kest::cSerializeBuffer& out) {
  PutString(out, msg.dir);
  PutString(out, msg.reason);
}

bool Decode(kest::cSerializeBuffer& in, cSubscribe& msg, std::string& error) {
  if (!GetString(in, msg.dir, "directory", error)) return false;
  if (!in.ReadU32(msg.tag)) {
    error = "missing tag";
    return false;
  }
  return AtEnd(in, error);
}

bool Decode(kest::cSerializeBuffer& in, cUnsubscribe& msg, std::string& error) {
  return GetString(in, msg.dir, "directory", error) && AtEnd(in, error);
}

bool Decode(kest::cSerializeBuffer& in, cSync& msg, std::string& error) {
  std::uint32_t count = 0;
  if (!GetString(in, msg.dir, "directory", error)) return false;
  if (!in.ReadU32(msg.tag) || !in.ReadU8(msg.flags) || !in.ReadU32(count)) {
    error = "short sync header";
    return false;
  }
  if (msg.flags & ~kSyncKnownFlags) {
    error = kest::FormatString("unknown sync flags 0x%02X", msg.flags);
    return false;
  }
  // A corrupt count must not make us reserve memory for entries that are not there.
  if (count > in.Remaining() / kMinEntry) {
    error = kest::FormatString("entry count %u exceeds the body", count);
    return false;
  }
  msg.entries.clear();
  msg.entries.reserve(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    cSyncEntry e;
    std::uint8_t kind = 0;
    if (!in.ReadU8(kind)) {
      error = kest::FormatString("entry %u: missing kind", i);
      return false;
    }
    if (kind != kEntryPut && kind != kEntryRemove) {
      error = kest::FormatString("entry %u: unknown kind %u", i, kind);
      return false;
    }
    e.remove = kind == kEntryRemove;
    if (!GetString(in, e.name, "entry name", error)) return false;
    if (!e.remove) {
      std::uint32_t len = 0;
      if (!in.ReadU32(len) || len > in.Remaining()) {
        error =
            kest::FormatString("entry %u (%s): record length beyond the body", i, e.name.c_str());
        return false;
      }
      e.bytes.resize(len);
      if (len != 0) in.Read(e.bytes.data(), len);
    }
    msg.entries.push_back(std::move(e));
  }
  return AtEnd(in, error);
}

bool Decode(kest::cSerializeBuffer& in, cDumpRequest& msg, std::string& error) {
  return GetString(in, msg.dir, "directory", error) && AtEnd(in, error);
}

bool Decode(kest::cSerializeBuffer& in, cDumpResult& msg, std::string& error) {
  std::uint8_t ok = 0;
  if (!GetString(in, msg.dir, "directory", error)) return false;
  if (!in.ReadU8(ok) || ok > 1) {
    error = "missing or bad result byte";
    return false;
  }
  msg.ok = ok == 1;
  return AtEnd(in, error);
}

bool Decode(kest::cSerializeBuffer& in, cRefused& msg, std::string& error) {
  return GetString(in, msg.dir, "directory", error) && GetString(in, msg.reason, "reason", error) &&
         AtEnd(in, error);
}

std::vector<kest::cSerializeBuffer> EncodeSyncChunks(cSync const& msg, std::size_t maxBody) {
  std::vector<kest::cSerializeBuffer> bodies;
  std::size_t const header = StringSize(msg.dir) + kSyncFixed;
  std::uint8_t const base = msg.flags & ~kSyncMore;
  std::size_t first = 0;
  do {
    std::size_t size = header;
    std::size_t last = first;
    while (last < msg.entries.size()) {
      std::size_t const add = EntrySize(msg.entries[last]);
      if (last > first && size + add > maxBody) break;
      size += add;
      ++last;
    }
    bool const more = last < msg.entries.size();
    kest::cSerializeBuffer body;
    PutSyncHeader(body, msg, base | (more ? kSyncMore : 0), last - first);
    for (std::size_t i = first; i < last; ++i) PutEntry(body, msg.entries[i]);
    bodies.push_back(std::move(body));
    first = last;
  } while (first < msg.entries.size());
  return bodies;
}

cSyncAssembler::Result cSyncAssembler::Add(cSync&& chunk, cSync& out, std::string& error) {
  error.clear();
  std::uint8_t const kind = chunk.flags & ~kSyncMore;
  bool const more = (chunk.flags & kSyncMore) != 0;
  std::size_t i = 0;
  while (i < m_pending.size() && m_pending[i].dir != chunk.dir) ++i;
  if (i < m_pending.size() && (m_pending[i].tag != chunk.tag || m_pending[i].flags != kind)) {
    error = kest::FormatString("sync of %s interrupted by another one; %zu entries dropped",
                               chunk.dir.c_str(), m_pending[i].entries.size());
    m_pending.erase(m_pending.begin() + static_cast<std::ptrdiff_t>(i));
    i = m_pending.size();
  }
  if (i == m_pending.size()) {
    chunk.flags = kind;
    if (!more) {
      out = std::move(chunk);
      return kComplete;
    }
    m_pending.push_back(std::move(chunk));
    return kIncomplete;
  }
  if (m_pending[i].entries.size() + chunk.entries.size() > kMaxSyncEntries) {
    error = kest::FormatString("sync of %s exceeds %zu entries; dropped", chunk.dir.c_str(),
                               kMaxSyncEntries);
    m_pending.erase(m_pending.begin() + static_cast<std::ptrdiff_t>(i));
    return kIncomplete;
  }
  for (auto& e : chunk.entries) m_pending[i].entries.push_back(std::move(e));
  if (more) return kIncomplete;
  out = std::move(m_pending[i]);
  m_pending.erase(m_pending.begin() + static_cast<std::ptrdiff_t>(i));
  return kComplete;
}

}  // namespace proto
}  // namespace dataIO

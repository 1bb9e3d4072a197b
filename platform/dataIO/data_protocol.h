// Wire format between data clients and the data manager: the bodies of the
// kest frames that carry subscriptions, synchronisations and dump requests.
// A pure codec: bytes in, values out, no I/O (docs/protocol.md, "Data store").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kest/hello.h"
#include "kest/serialize.h"

namespace dataIO {
namespace proto {

// What a client names in its hello, and the data manager answers with.
constexpr kest::cServiceId kService{"dataMgr", "the data manager", 1};

// Operation codes (the frame's op field). All of them travel as events.
enum Op : std::uint16_t {
  kOpSubscribe = 1,    // client -> manager
  kOpUnsubscribe = 2,  // client -> manager
  kOpSync = 3,         // manager -> client
  kOpDumpRequest = 4,  // manager -> client
  kOpDumpResult = 5,   // client -> manager
  kOpRefused = 6,      // manager -> client: a subscription it cannot serve
};

// Sync flags.
constexpr std::uint8_t kSyncFull = 0x01;  // a complete snapshot of the directory
constexpr std::uint8_t kSyncMore = 0x02;  // further chunks of this sync follow
constexpr std::uint8_t kSyncKnownFlags = kSyncFull | kSyncMore;

// A record larger than this cannot be stored: with the chunk header it must
// fit in one frame.
constexpr std::size_t kMaxRecordBytes = 32 * 1024;

struct cSubscribe {
  std::string dir;
  std::uint32_t tag = 0;  // echoed in the snapshot, so a late snapshot of an
                          // earlier subscription is recognised
};

struct cUnsubscribe {
  std::string dir;
};

struct cSyncEntry {
  bool remove = false;
  std::string name;
  std::vector<std::uint8_t> bytes;  // the record's own serialised form; empty for a removal

  bool operator==(cSyncEntry const& o) const {
    return remove == o.remove && name == o.name && bytes == o.bytes;
  }
};

struct cSync {
  std::string dir;
  std::uint32_t tag = 0;  // of the subscription for a snapshot, 0 for a pushed change
  std::uint8_t flags = 0;
  std::vector<cSyncEntry> entries;
};

struct cDumpRequest {
  std::string dir;
};

struct cDumpResult {
  std::string dir;
  bool ok = false;
};

struct cRefused {
  std::string dir;
  std::string reason;
};

void Encode(cSubscribe const& msg, kest::cSerializeBuffer& out);
void Encode(cUnsubscribe const& msg, kest::cSerializeBuffer& out);
void Encode(cSync const& msg, kest::cSerializeBuffer& out);
void Encode(cDumpRequest const& msg, kest::cSerializeBuffer& out);
void Encode(cDumpResult const& msg, kest::cSerializeBuffer& out);
void Encode(cRefused const& msg, kest::cSerializeBuffer& out);

// Each decoder reads a whole body; trailing bytes, short bodies, oversized
// lengths and unknown flags are refused with a reason.
bool Decode(kest::cSerializeBuffer& in, cSubscribe& msg, std::string& error);
bool Decode(kest::cSerializeBuffer& in, cUnsubscribe& msg, std::string& error);
bool Decode(kest::cSerializeBuffer& in, cSync& msg, std::string& error);
bool Decode(kest::cSerializeBuffer& in, cDumpRequest& msg, std::string& error);
bool Decode(kest::cSerializeBuffer& in, cDumpResult& msg, std::string& error);
bool Decode(kest::cSerializeBuffer& in, cRefused& msg, std::string& error);

// Splits a sync into bodies of at most maxBody bytes (each entry whole; an
// entry alone always gets a body of its own). Every body but the last
// carries kSyncMore; all carry the sync's other flags and tag.
std::vector<kest::cSerializeBuffer> EncodeSyncChunks(cSync const& msg, std::size_t maxBody);

// Joins the chunks of one sync again, as the client receives them.
class cSyncAssembler {
 public:
  // A data manager that keeps sending "more" must not make a client buffer
  // without bound: a device's directory holds hundreds of records, so a sync
  // beyond this many entries is dropped whole.
  static constexpr std::size_t kMaxSyncEntries = 100000;
  enum Result { kIncomplete, kComplete };
  // kComplete: out holds the whole sync (flags without kSyncMore). A chunk
  // that does not continue the sync in progress of its directory drops that
  // one (reported in error, otherwise left empty) and starts anew.
  Result Add(cSync&& chunk, cSync& out, std::string& error);
  void Reset() { m_pending.clear(); }

 private:
  std::vector<cSync> m_pending;  // one per directory being assembled
};

}  // namespace proto
}  // namespace dataIO

// The data-store protocol on arbitrary frame bodies: what the data manager
// decodes from clients and what a data client decodes from the manager.
// Byte 0 selects the message (op 1..6 as on the wire); op 0 runs a stream of
// sync chunks (each a u16 LE length and a body) through the assembler.
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "dataIO/data_protocol.h"
#include "fuzz_check.h"

namespace {

using namespace dataIO::proto;

// Decode, and for what decodes: encode, decode again, same bytes.
template <typename M>
void RoundTrip(kest::cSerializeBuffer& body) {
  M msg;
  std::string error;
  if (!Decode(body, msg, error)) {
    FUZZ_CHECK(!error.empty());
    return;
  }
  kest::cSerializeBuffer first;
  Encode(msg, first);
  M back;
  FUZZ_CHECK(Decode(first, back, error));
  kest::cSerializeBuffer second;
  Encode(back, second);
  FUZZ_CHECK(first.Bytes() == second.Bytes());
}

void Assemble(const std::uint8_t* data, std::size_t size) {
  cSyncAssembler assembler;
  std::size_t pos = 0;
  while (size - pos >= 2) {
    std::size_t len = data[pos] | data[pos + 1] << 8;
    pos += 2;
    if (len > size - pos) len = size - pos;
    kest::cSerializeBuffer body(data + pos, len);
    pos += len;
    cSync chunk;
    std::string error;
    if (!Decode(body, chunk, error)) continue;
    cSync whole;
    if (assembler.Add(std::move(chunk), whole, error) == cSyncAssembler::kComplete) {
      FUZZ_CHECK((whole.flags & kSyncMore) == 0);
      // A whole sync split again must come back as the same sync.
      std::vector<kest::cSerializeBuffer> parts = EncodeSyncChunks(whole, 512);
      FUZZ_CHECK(!parts.empty());
      cSyncAssembler again;
      cSync rejoined;
      cSyncAssembler::Result r = cSyncAssembler::kIncomplete;
      for (kest::cSerializeBuffer& part : parts) {
        cSync piece;
        FUZZ_CHECK(Decode(part, piece, error));
        r = again.Add(std::move(piece), rejoined, error);
      }
      FUZZ_CHECK(r == cSyncAssembler::kComplete);
      FUZZ_CHECK(rejoined.dir == whole.dir && rejoined.tag == whole.tag &&
                 rejoined.flags == whole.flags && rejoined.entries == whole.entries);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  switch (data[0]) {
    case 0: Assemble(data + 1, size - 1); break;
    case kOpSubscribe: RoundTrip<cSubscribe>(body); break;
    case kOpUnsubscribe: RoundTrip<cUnsubscribe>(body); break;
    case kOpSync: RoundTrip<cSync>(body); break;
    case kOpDumpRequest: RoundTrip<cDumpRequest>(body); break;
    case kOpDumpResult: RoundTrip<cDumpResult>(body); break;
    case kOpRefused: RoundTrip<cRefused>(body); break;
    default: break;
  }
  return 0;
}

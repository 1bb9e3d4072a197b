// The data-store protocol on arbitrary frame bodies, both directions. Byte 0
// is the op (1..6 as on the wire); 0 runs a stream of sync chunks (each a
// u16 LE length and a body) through the assembler.
#include "dataIO/data_protocol.h"
#include "fuzz_check.h"

namespace {

using namespace dataIO::proto;

template <typename M>
void RoundTrip(kest::cSerializeBuffer& body) {
  M msg, back;
  fuzz::RoundTrip(
      body, msg, back, [](M const& m, kest::cSerializeBuffer& b) { Encode(m, b); },
      [](kest::cSerializeBuffer& b, M& m, std::string& e) { return Decode(b, m, e); });
}

void Assemble(const std::uint8_t* data, std::size_t size) {
  cSyncAssembler assembler;
  fuzz::Steps(data, size, 0, [&](const std::uint8_t*, kest::cSerializeBuffer& body) {
    cSync chunk, whole;
    std::string error;
    if (!Decode(body, chunk, error)) return;
    if (assembler.Add(std::move(chunk), whole, error) != cSyncAssembler::kComplete) return;
    FUZZ_CHECK((whole.flags & kSyncMore) == 0);
    // Split again, it must join into the same sync.
    cSyncAssembler again;
    cSync rejoined;
    auto r = cSyncAssembler::kIncomplete;
    for (kest::cSerializeBuffer& part : EncodeSyncChunks(whole, 512)) {
      cSync piece;
      FUZZ_CHECK(Decode(part, piece, error));
      r = again.Add(std::move(piece), rejoined, error);
    }
    FUZZ_CHECK(r == cSyncAssembler::kComplete);
    FUZZ_CHECK(rejoined.dir == whole.dir && rejoined.tag == whole.tag &&
               rejoined.flags == whole.flags && rejoined.entries == whole.entries);
  });
}

void (*const kRun[])(kest::cSerializeBuffer&) = {RoundTrip<cSubscribe>,  RoundTrip<cUnsubscribe>,
                                                 RoundTrip<cSync>,       RoundTrip<cDumpRequest>,
                                                 RoundTrip<cDumpResult>, RoundTrip<cRefused>};
static_assert(kOpSubscribe == 1 && kOpUnsubscribe == 2 && kOpSync == 3 && kOpDumpRequest == 4 &&
              kOpDumpResult == 5 && kOpRefused == 6);

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  if (size > 0 && data[0] == 0) Assemble(data + 1, size - 1);
  if (size > 0 && data[0] >= 1 && data[0] <= 6) kRun[data[0] - 1](body);
  return 0;
}

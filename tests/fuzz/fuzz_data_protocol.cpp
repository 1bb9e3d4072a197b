// The data-store protocol on arbitrary frame bodies, both directions. Byte 0
// is the op (1..6 as on the wire).
#include "dataIO/data_protocol.h"
#include "fuzz_check.h"

namespace {

using namespace dataIO::proto;

template <typename M>
void RoundTrip(kest::cSerializeBuffer& body) {
  M msg, back;
  fuzz::RoundTrip(
      body, msg, back, [](M const& m, kest::cSerializeBuffer& b) { return Encode(m, b), true; },
      [](kest::cSerializeBuffer& b, M& m, std::string& e) { return Decode(b, m, e); });
}

void (*const kRun[])(kest::cSerializeBuffer&) = {RoundTrip<cSubscribe>,  RoundTrip<cUnsubscribe>,
                                                 RoundTrip<cSync>,       RoundTrip<cDumpRequest>,
                                                 RoundTrip<cDumpResult>, RoundTrip<cRefused>};
static_assert(kOpSubscribe == 1 && kOpRefused == 6);

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  if (size > 0 && data[0] >= 1 && data[0] <= 6) kRun[data[0] - 1](body);
  return 0;
}

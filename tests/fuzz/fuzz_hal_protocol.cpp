// The HAL proxy's request decoder and the client's answer decoders on
// arbitrary frame bodies. Byte 0: the request op, 0xFE an answer, 0xFF a
// route list.
#include "fuzz_check.h"
#include "hal/hal_protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  if (data[0] == 0xFE) {
    int result = 0, back = 1;
    auto enc = [](int r, kest::cSerializeBuffer& b) { return hal::EncodeResult(r, b), true; };
    fuzz::RoundTrip(body, result, back, enc, hal::DecodeResult);
  } else if (data[0] == 0xFF) {
    hal::cRouteList list, back;
    fuzz::RoundTrip(body, list, back, hal::EncodeRouteList, hal::DecodeRouteList);
  } else {
    const std::uint16_t op = data[0];
    hal::cHalRequest req, back;
    auto dec = [op](auto& b, auto& m, auto& e) { return hal::DecodeRequest(op, b, m, e); };
    if (fuzz::RoundTrip(body, req, back, hal::EncodeRequest, dec)) {
      FUZZ_CHECK(hal::Describe(back) == hal::Describe(req));
    }
  }
  return 0;
}

// The HAL proxy's request decoder and the client's answer decoders on
// arbitrary frame bodies. Byte 0: the frame op for DecodeRequest, 0xFE for
// DecodeResult, 0xFF for DecodeRouteList. What decodes must encode and
// decode to the same thing again.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "hal/hal_protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  std::string error;
  switch (data[0]) {
    case 0xFE: {
      int result = 0;
      if (hal::DecodeResult(body, result, error)) {
        kest::cSerializeBuffer again;
        hal::EncodeResult(result, again);
        int back = 1;
        FUZZ_CHECK(hal::DecodeResult(again, back, error) && back == result);
      }
      return 0;
    }
    case 0xFF: {
      int result = 0;
      std::vector<std::string> lines;
      if (hal::DecodeRouteList(body, result, lines, error)) {
        kest::cSerializeBuffer again;
        FUZZ_CHECK(hal::EncodeRouteList(result, lines, again));
        int backResult = 0;
        std::vector<std::string> backLines;
        FUZZ_CHECK(hal::DecodeRouteList(again, backResult, backLines, error));
        FUZZ_CHECK(backResult == result && backLines == lines);
      }
      return 0;
    }
    default:
      break;
  }

  const std::uint16_t op = data[0];
  hal::cHalRequest req;
  if (!hal::DecodeRequest(op, body, req, error)) {
    FUZZ_CHECK(!error.empty());
    return 0;
  }
  FUZZ_CHECK(hal::halop::Name(op) != nullptr);
  (void)hal::Describe(req);
  kest::cSerializeBuffer first;
  FUZZ_CHECK(hal::EncodeRequest(req, first));
  hal::cHalRequest back;
  FUZZ_CHECK(hal::DecodeRequest(op, first, back, error));
  kest::cSerializeBuffer second;
  FUZZ_CHECK(hal::EncodeRequest(back, second));
  FUZZ_CHECK(first.Bytes() == second.Bytes());
  FUZZ_CHECK(hal::Describe(back) == hal::Describe(req));
  return 0;
}

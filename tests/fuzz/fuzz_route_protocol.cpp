// The route service's command and answer decoders on arbitrary frame bodies,
// as anything that connects may send them. Byte 0: the command op, or 0xFF
// for an answer.
#include "fuzz_check.h"
#include "routeIO/route_protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  if (data[0] == 0xFF) {
    routeIO::routeResult result{}, back{};
    auto enc = [](auto const& r, kest::cSerializeBuffer& b) {
      return routeIO::EncodeResult(r, b), true;
    };
    fuzz::RoundTrip(body, result, back, enc, routeIO::DecodeResult);
    return 0;
  }
  const std::uint16_t op = data[0];
  routeIO::routeCommand cmd, back;
  auto dec = [op](auto& b, auto& m, auto& e) { return routeIO::DecodeCommand(op, b, m, e); };
  if (fuzz::RoundTrip(body, cmd, back, routeIO::EncodeCommand, dec)) {
    FUZZ_CHECK(routeIO::OpOf(cmd) == op);
  }
  return 0;
}

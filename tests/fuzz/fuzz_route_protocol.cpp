// The route service's command and answer decoders on arbitrary frame bodies,
// as a route client (or anything that connects) may send them. Byte 0: the
// frame op for DecodeCommand, or 0xFF for DecodeResult. A body that decodes
// must encode again and decode to the same command.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "routeIO/route_protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  std::string error;
  if (data[0] == 0xFF) {
    routeIO::routeResult result{};
    if (routeIO::DecodeResult(body, result, error)) {
      kest::cSerializeBuffer again;
      routeIO::EncodeResult(result, again);
      routeIO::routeResult back{};
      FUZZ_CHECK(routeIO::DecodeResult(again, back, error));
      FUZZ_CHECK(back.success == result.success && back.rc == result.rc);
    } else {
      FUZZ_CHECK(!error.empty());
    }
    return 0;
  }

  const std::uint16_t op = data[0];
  routeIO::routeCommand cmd;
  if (!routeIO::DecodeCommand(op, body, cmd, error)) {
    FUZZ_CHECK(!error.empty());
    return 0;
  }
  FUZZ_CHECK(routeIO::OpOf(cmd) == op);
  FUZZ_CHECK(routeIO::routeop::Name(op) != nullptr);
  kest::cSerializeBuffer first;
  FUZZ_CHECK(routeIO::EncodeCommand(cmd, first));
  routeIO::routeCommand back;
  FUZZ_CHECK(routeIO::DecodeCommand(op, first, back, error));
  kest::cSerializeBuffer second;
  FUZZ_CHECK(routeIO::EncodeCommand(back, second));
  FUZZ_CHECK(first.Bytes() == second.Bytes());
  return 0;
}

// datactl's requests to the data manager and its replies, on arbitrary frame
// bodies. Byte 0: 0xFF is a reply, anything else the request op minus 100.
#include "control_protocol.h"
#include "fuzz_check.h"

namespace ctl = datamgr::ctl;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  auto enc = [](auto const& m, kest::cSerializeBuffer& b) { return ctl::Encode(m, b), true; };
  if (data[0] == 0xFF) {
    ctl::cReply reply, back;
    auto dec = [](auto& b, ctl::cReply& m, auto& e) { return ctl::Decode(b, m, e); };
    fuzz::RoundTrip(body, reply, back, enc, dec);
    return 0;
  }
  const std::uint16_t op = static_cast<std::uint16_t>(100 + data[0]);
  ctl::cRequest req, back;
  auto dec = [op](auto& b, auto& m, auto& e) { return ctl::Decode(op, b, m, e); };
  if (fuzz::RoundTrip(body, req, back, enc, dec)) FUZZ_CHECK(req.op == op);
  return 0;
}

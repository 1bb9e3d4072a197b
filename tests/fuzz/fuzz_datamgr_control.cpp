// The data manager's control requests (from datactl) and their replies on
// arbitrary frame bodies. Byte 0: 0xFF decodes a reply; anything else is the
// frame op (100 + byte 0) of a request.
#include <cstddef>
#include <cstdint>
#include <string>

#include "control_protocol.h"
#include "fuzz_check.h"

namespace ctl = datamgr::ctl;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  std::string error;
  if (data[0] == 0xFF) {
    ctl::cReply reply;
    if (ctl::Decode(body, reply, error)) {
      kest::cSerializeBuffer again;
      ctl::Encode(reply, again);
      ctl::cReply back;
      FUZZ_CHECK(ctl::Decode(again, back, error));
      FUZZ_CHECK(back.rc == reply.rc && back.text == reply.text);
    }
    return 0;
  }
  const std::uint16_t op = static_cast<std::uint16_t>(100 + data[0]);
  ctl::cRequest req;
  if (!ctl::Decode(op, body, req, error)) {
    FUZZ_CHECK(!error.empty());
    return 0;
  }
  FUZZ_CHECK(req.op == op);
  kest::cSerializeBuffer first;
  ctl::Encode(req, first);
  ctl::cRequest back;
  FUZZ_CHECK(ctl::Decode(op, first, back, error));
  kest::cSerializeBuffer second;
  ctl::Encode(back, second);
  FUZZ_CHECK(first.Bytes() == second.Bytes());
  return 0;
}

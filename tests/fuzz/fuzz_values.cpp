// The framework's serialisable scalar values, which every record and message
// is made of, on arbitrary bytes. Byte 0 selects the type.
#include <vector>

#include "fuzz_check.h"
#include "kest/types.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

namespace {

template <typename V>
void RoundTrip(const std::uint8_t* data, std::size_t size) {
  kest::cSerializeBuffer body(data, size);
  V value;
  const std::string before = value.ToString("");
  if (!value.Deserialize(body)) {
    FUZZ_CHECK(value.ToString("") == before);  // a refused read changes nothing
    return;
  }
  kest::cSerializeBuffer first;
  FUZZ_CHECK(value.Serialize(first));
  FUZZ_CHECK(first.Bytes() == std::vector<std::uint8_t>(data, data + body.Cursor()));
  V back;
  FUZZ_CHECK(back.Deserialize(first) && first.AtEnd() && back == value);
}

void (*const kRun[])(const std::uint8_t*, std::size_t) = {
    RoundTrip<kest::s_bool>,   RoundTrip<kest::s_int8>,       RoundTrip<kest::s_uint8>,
    RoundTrip<kest::s_uint16>, RoundTrip<kest::s_uint32>,     RoundTrip<kest::s_uint64>,
    RoundTrip<kest::s_string>, RoundTrip<kest::s_socket_addr>};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kRun[data[0] % 8](data + 1, size - 1);
  return 0;
}

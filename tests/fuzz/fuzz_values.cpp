// The framework's serialisable scalar values, which every record and message
// is made of, on arbitrary bytes. Byte 0 selects the type; 8 parses the rest
// as a dotted quad.
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
  for (char const* f : {"", "hex", "hex2", "02", "08", "16", "17", "x"}) (void)value.ToString(f);
  kest::cSerializeBuffer first;
  FUZZ_CHECK(value.Serialize(first));
  FUZZ_CHECK(first.Bytes() == std::vector<std::uint8_t>(data, data + body.Cursor()));
  V back;
  FUZZ_CHECK(back.Deserialize(first) && first.AtEnd() && back == value);
}

void Dotted(const std::uint8_t* data, std::size_t size) {
  kest::s_socket_addr addr, again;
  if (!addr.InitFromString(std::string(reinterpret_cast<char const*>(data), size), 7)) {
    FUZZ_CHECK(addr.GetIP() == 0 && addr.GetPort() == 7);
    return;
  }
  FUZZ_CHECK(again.InitFromString(addr.GetIPString(), 7) && again == addr);
}

void (*const kRun[])(const std::uint8_t*, std::size_t) = {
    RoundTrip<kest::s_bool>,   RoundTrip<kest::s_int8>,        RoundTrip<kest::s_uint8>,
    RoundTrip<kest::s_uint16>, RoundTrip<kest::s_uint32>,      RoundTrip<kest::s_uint64>,
    RoundTrip<kest::s_string>, RoundTrip<kest::s_socket_addr>, Dotted};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kRun[data[0] % 9](data + 1, size - 1);
  return 0;
}

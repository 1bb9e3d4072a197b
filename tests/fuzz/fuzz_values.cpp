// The framework's serialisable scalar values, which every record and message
// is made of, on arbitrary bytes. Byte 0 selects the type; 8 parses the rest
// as a dotted quad (s_socket_addr::InitFromString). A value that decodes
// must serialise to bytes that decode to the same value again.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "kest/types.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

namespace {

char const* const kFormats[] = {"", "hex", "hex2", "02", "08", "16", "17", "x"};

template <typename V>
void RoundTrip(kest::cSerializeBuffer& body) {
  V value;
  const std::string before = value.ToString("");
  if (!value.Deserialize(body)) {
    // A refused read leaves the value as it was.
    FUZZ_CHECK(value.ToString("") == before);
    return;
  }
  for (char const* f : kFormats) (void)value.ToString(f);
  kest::cSerializeBuffer first;
  FUZZ_CHECK(value.Serialize(first));
  FUZZ_CHECK(first.Size() == body.Cursor());
  FUZZ_CHECK(first.Bytes() ==
             std::vector<std::uint8_t>(body.Data(), body.Data() + body.Cursor()));
  V back;
  FUZZ_CHECK(back.Deserialize(first) && first.AtEnd());
  FUZZ_CHECK(back == value);
}

void Dotted(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<char const*>(data), size);
  kest::s_socket_addr addr;
  if (!addr.InitFromString(text, 7)) {
    FUZZ_CHECK(addr.GetIP() == 0 && addr.GetPort() == 7);
    return;
  }
  kest::s_socket_addr again;
  FUZZ_CHECK(again.InitFromString(addr.GetIPString(), 7));
  FUZZ_CHECK(again == addr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  switch (data[0] % 9) {
    case 0: RoundTrip<kest::s_bool>(body); break;
    case 1: RoundTrip<kest::s_int8>(body); break;
    case 2: RoundTrip<kest::s_uint8>(body); break;
    case 3: RoundTrip<kest::s_uint16>(body); break;
    case 4: RoundTrip<kest::s_uint32>(body); break;
    case 5: RoundTrip<kest::s_uint64>(body); break;
    case 6: RoundTrip<kest::s_string>(body); break;
    case 7: RoundTrip<kest::s_socket_addr>(body); break;
    case 8: Dotted(data + 1, size - 1); break;
  }
  return 0;
}

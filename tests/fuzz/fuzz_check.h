// Shared by the fuzz targets: a property that does not hold is a finding,
// reported like a sanitizer one (message, then abort so libFuzzer keeps the
// input as a crash).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "kest/serialize.h"

#define FUZZ_CHECK(cond)                                                                      \
  ((cond) ? (void)0                                                                           \
          : (std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond), \
             std::abort()))

namespace fuzz {

inline kest::cSerializeBuffer Body(const std::uint8_t* data, std::size_t size, std::size_t skip) {
  return size > skip ? kest::cSerializeBuffer(data + skip, size - skip) : kest::cSerializeBuffer();
}

// dec(buf, msg, error) -> bool, enc(msg, buf) -> bool. A refusal must say
// why; what decodes must encode, decode again (into `back`) and encode to the
// same bytes.
template <typename M, typename Enc, typename Dec>
bool RoundTrip(kest::cSerializeBuffer& body, M& msg, M& back, Enc enc, Dec dec) {
  std::string error;
  if (!dec(body, msg, error)) {
    FUZZ_CHECK(!error.empty());
    return false;
  }
  kest::cSerializeBuffer first, second;
  FUZZ_CHECK(enc(msg, first) && dec(first, back, error) && enc(back, second));
  FUZZ_CHECK(first.Bytes() == second.Bytes());
  return true;
}

}  // namespace fuzz

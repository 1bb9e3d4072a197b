// Shared by the fuzz targets: a property that does not hold is a finding,
// reported like a sanitizer one (message, then abort so libFuzzer keeps the
// input as a crash).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <vector>

#include "kest/serialize.h"

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : fuzz::Fail(__FILE__, __LINE__, #cond))

namespace fuzz {

[[noreturn]] inline void Fail(char const* file, int line, char const* what) {
  std::fprintf(stderr, "%s:%d: property failed: %s\n", file, line, what);
  std::abort();
}

inline kest::cSerializeBuffer Body(const std::uint8_t* data, std::size_t size, std::size_t skip) {
  return size > skip ? kest::cSerializeBuffer(data + skip, size - skip) : kest::cSerializeBuffer();
}

// Some encoders cannot fail and return nothing.
template <typename F, typename M>
bool Encoded(F& enc, M const& msg, kest::cSerializeBuffer& buf) {
  if constexpr (std::is_void_v<decltype(enc(msg, buf))>)
    return enc(msg, buf), true;
  else
    return enc(msg, buf);
}

// dec(buf, msg, error) -> bool, enc(msg, buf). A refusal must say why; what
// decodes must encode, decode again (into `back`) and encode to the same bytes.
template <typename M, typename Enc, typename Dec>
bool RoundTrip(kest::cSerializeBuffer& body, M& msg, M& back, Enc enc, Dec dec) {
  std::string error;
  if (!dec(body, msg, error)) {
    FUZZ_CHECK(!error.empty());
    return false;
  }
  kest::cSerializeBuffer first, second;
  FUZZ_CHECK(Encoded(enc, msg, first));
  FUZZ_CHECK(dec(first, back, error));
  FUZZ_CHECK(Encoded(enc, back, second));
  FUZZ_CHECK(first.Bytes() == second.Bytes());
  return true;
}

// Cuts the input into steps of `head` bytes, a u16 LE length and that many
// bytes (fewer at the end), and calls f(head bytes, body) for each.
template <typename F>
void Steps(const std::uint8_t* data, std::size_t size, std::size_t head, F f) {
  std::size_t pos = 0;
  while (size - pos >= head + 2) {
    const std::uint8_t* h = data + pos;
    pos += head + 2;
    const std::size_t len = std::min<std::size_t>(h[head] | h[head + 1] << 8, size - pos);
    kest::cSerializeBuffer body(data + pos, len);
    pos += len;
    f(h, body);
  }
}

}  // namespace fuzz

// Shared by the fuzz targets: a property that does not hold is a finding,
// reported like a sanitizer one (message, then abort so libFuzzer keeps the
// input as a crash).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kest/serialize.h"

#define FUZZ_CHECK(cond)                                                          \
  do {                                                                            \
    if (!(cond)) {                                                                \
      std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__,    \
                   #cond);                                                        \
      std::abort();                                                               \
    }                                                                             \
  } while (0)

namespace fuzz {

// The input after its first `skip` bytes, as a buffer whose cursor is at 0.
inline kest::cSerializeBuffer Body(const std::uint8_t* data, std::size_t size, std::size_t skip) {
  return size > skip ? kest::cSerializeBuffer(data + skip, size - skip) : kest::cSerializeBuffer();
}

inline std::vector<std::uint8_t> Bytes(kest::cSerializeBuffer const& buf) { return buf.Bytes(); }

}  // namespace fuzz

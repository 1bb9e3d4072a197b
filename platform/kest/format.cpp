#include "kest/format.h"

#include <cstdio>

namespace kest {

std::string FormatStringV(char const* fmt, va_list args) {
  if (fmt == nullptr) return std::string();
  char small[256];
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<std::size_t>(n) < sizeof small)
    return std::string(small, static_cast<std::size_t>(n));
  std::string out(static_cast<std::size_t>(n) + 1, '\0');
  va_copy(copy, args);
  std::vsnprintf(&out[0], out.size(), fmt, copy);
  va_end(copy);
  out.resize(static_cast<std::size_t>(n));
  return out;
}

std::string FormatString(char const* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string out = FormatStringV(fmt, args);
  va_end(args);
  return out;
}

}  // namespace kest

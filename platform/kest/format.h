#pragma once
#include <cstdarg>
#include <string>

namespace kest {
// printf-style formatting into a std::string of any length.
std::string FormatString(char const* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string FormatStringV(char const* fmt, va_list args);
}  // namespace kest

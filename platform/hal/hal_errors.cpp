#include "hal/hal_errors.h"

#include <cstring>

namespace hal {
namespace halerr {

char const* Name(int code) {
  switch (code) {
    case kNotConnected:
      return "not connected";
    case kTimeout:
      return "timeout";
    case kProtocol:
      return "protocol error";
    case kConnectionLost:
      return "connection lost";
    default:
      return nullptr;
  }
}

std::string Describe(int code) {
  std::string text = std::to_string(code);
  if (code == 0) return text + " (ok)";
  if (char const* name = Name(code)) return text + " (" + name + ")";
  // Results from the proxy are negative errno values.
  if (code < 0 && code > -4096) return text + " (" + std::strerror(-code) + ")";
  return text;
}

}  // namespace halerr
}  // namespace hal

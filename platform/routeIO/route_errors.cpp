#include "routeIO/route_errors.h"

namespace routeIO {
namespace routeerr {

char const* Name(std::int32_t code) {
  switch (code) {
    case kNotConnected:
      return "not connected";
    case kTimeout:
      return "timeout";
    case kConnectionLost:
      return "connection lost";
    case kProtocol:
      return "protocol error";
    case kBadRequest:
      return "request cannot be encoded";
    case kBusy:
      return "posted answers not collected yet";
    case kNothingPosted:
      return "nothing posted";
    default:
      return nullptr;
  }
}

}  // namespace routeerr
}  // namespace routeIO

#include "routectl/hal_table.h"

#include <cstring>

#include "hal/hal_protocol.h"
#include "kest/call_once.h"

namespace routectl {

bool FetchHalTable(std::string const& accessPoint, int timeoutMs, std::vector<std::string>& lines,
                   std::string& error) {
  hal::cHalRequest req;
  req.op = hal::halop::kListRoutes;
  kest::cSerializeBuffer body, reply;
  hal::EncodeRequest(req, body);
  if (!kest::CallOnce(accessPoint, hal::kService, timeoutMs, req.op, body, reply, error)) return false;
  int result = 0;
  if (!hal::DecodeRouteList(reply, result, lines, error)) return false;
  if (result != 0) {
    error = "the HAL proxy answered " + std::to_string(result) +
            (result < 0 ? std::string(" (") + std::strerror(-result) + ")" : "");
    return false;
  }
  return true;
}

}  // namespace routectl

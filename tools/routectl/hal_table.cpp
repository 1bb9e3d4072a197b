#include "routectl/hal_table.h"

#include <chrono>
#include <cstring>

#include "hal/hal_protocol.h"
#include "kest/call_once.h"

namespace routectl {

bool FetchHalTable(std::string const& accessPoint, int timeoutMs, std::vector<std::string>& lines,
                   std::string& error) {
  using Clock = std::chrono::steady_clock;
  auto const deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  lines.clear();
  hal::cHalRequest req;
  req.op = hal::halop::kListRoutes;
  for (;;) {
    kest::cSerializeBuffer body, reply;
    hal::EncodeRequest(req, body);
    auto const left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      error = "timed out after " + std::to_string(lines.size()) + " routes";
      return false;
    }
    if (!kest::CallOnce(accessPoint, hal::kService, static_cast<int>(left), req.op, body, reply,
                        error))
      return false;
    hal::cRouteList piece;
    if (!hal::DecodeRouteList(reply, piece, error)) return false;
    if (piece.result != 0) {
      error = "the HAL proxy answered " + std::to_string(piece.result) +
              (piece.result < 0 ? std::string(" (") + std::strerror(-piece.result) + ")" : "");
      return false;
    }
    if (!hal::CollectRoutePiece(piece, lines, error)) return false;
    if (!piece.more) return true;
    req.first = static_cast<std::uint32_t>(lines.size());
  }
}

}  // namespace routectl

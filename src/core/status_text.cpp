#include "core/status_text.h"

#include "core/route_mgr_service.h"
#include "kest/format.h"

std::string StatusText(cRouteMgrService& service) {
  bool const hal = service.HalClient().IsConnected();
  bool const data = service.DataClient().IsConnected();
  if (!hal || !data) {
    std::string waits;
    if (!hal) waits = "the HAL proxy (" + service.HalClient().AccessPoint() + ")";
    if (!hal && !data) waits += " and ";
    if (!data) waits += "the data manager (" + service.DataClient().AccessPoint() + ")";
    return "waiting for " + waits;
  }
  routeIO::cRouteServer const& server = service.RouteServer();
  if (!server.IsReady()) {
    std::string const& why = server.WhyNotListening();
    return "route service not listening: " + (why.empty() ? std::string("starting") : why);
  }
  return kest::FormatString("serving route clients; connected %zu, custom routes %zu, gateways %zu",
                            server.Clients(), service.Routes().size(), service.Gateways().size());
}

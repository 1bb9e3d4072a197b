// Reads the HAL proxy's table through its listing operation (a tooling
// request of the proxy, not used by the route manager): what routes the
// proxy has installed, one line each, e.g.
// "10.20.0.0/16 via 192.168.1.1 dev eth1 metric 0".
#pragma once

#include <string>
#include <vector>

namespace routectl {

// Blocking: asks for the table piece after piece, a connection each, at most
// timeoutMs in all. False with a reason when the proxy cannot be reached,
// refuses, or answers nonsense.
bool FetchHalTable(std::string const& accessPoint, int timeoutMs, std::vector<std::string>& lines,
                   std::string& error);

}  // namespace routectl

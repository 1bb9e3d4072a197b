// One request and its reply over a fresh connection, blocking, for command
// line tools that ask a service one thing and exit.
#pragma once

#include <cstdint>
#include <string>

#include "kest/hello.h"
#include "kest/serialize.h"

namespace kest {

// Connects to accessPoint ("a.b.c.d:port" or "unix:/path"), sends the hello
// for the wanted service and one request frame with op and body, and waits
// for the reply with the same id; events the service sends meanwhile are
// skipped. Everything, the connect included, ends within timeoutMs. False
// with a reason in error, the server's own when it refused us ("... is the
// HAL proxy, not the data manager").
bool CallOnce(std::string const& accessPoint, cServiceId const& wanted, int timeoutMs,
              std::uint16_t op, cSerializeBuffer const& body, cSerializeBuffer& reply,
              std::string& error);

}  // namespace kest

// The few words the init system shows for the route manager (systemd's
// STATUS=, a log line under procd): what it waits for, or whom it serves.
#pragma once

#include <string>

class cRouteMgrService;

std::string StatusText(cRouteMgrService& service);

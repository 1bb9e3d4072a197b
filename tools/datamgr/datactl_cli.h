// datactl's command line and its one blocking request to the data manager.
#pragma once

#include <string>
#include <vector>

#include "control_protocol.h"

namespace datamgr {

constexpr char kDefaultAccessPoint[] = "127.0.0.1:3711";
// datactl is run by people and scripts: an unreachable or hung data manager
// must not hold them for long.
constexpr int kControlTimeoutMs = 5000;

extern char const* const kDatactlUsage;

// The whole command line: -1 to go on, otherwise the exit status after help,
// version or a usage error has been printed.
int ParseDatactlArgs(int argc, char** argv, std::string& server, ctl::cRequest& req);
// The command and its words; false with a reason.
bool ParseDatactlCommand(std::vector<std::string> const& words, ctl::cRequest& req,
                         std::string& error);

// Connects, sends the request, waits for the reply. False with a reason
// when the data manager cannot be reached or answers nonsense.
bool SendControl(std::string const& server, ctl::cRequest const& req, ctl::cReply& reply,
                 std::string& error, int timeoutMs = kControlTimeoutMs);

}  // namespace datamgr

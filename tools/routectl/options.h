// routectl's command line: options first, then at most one command.
#pragma once

#include <string>
#include <vector>

namespace routectl {

struct cOptions {
  enum Action { kRun, kHelp, kVersion, kHalTable };
  Action action = kRun;
  std::string server = "127.0.0.1:3712";  // the route library's default access point
  std::string hal = "127.0.0.1:3710";     // the HAL proxy, for --hal-table
  std::string batch;                      // -b FILE; "-" is standard input; "" none
  bool hold = false;
  bool json = false;
  bool strict = false;
  int timeoutMs = 10000;           // per answer; the service waits on the HAL proxy itself
  int waitMs = 0;                  // how long to retry a refused connection
  std::vector<std::string> words;  // the command given on the command line
};

// False with a message for a usage error (exit status 2).
bool ParseOptions(std::vector<std::string> const& args, cOptions& out, std::string& error);

std::string HelpText();
std::string VersionText();

}  // namespace routectl

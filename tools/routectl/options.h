// routectl's command line: options first, then at most one command.
#pragma once

#include <string>
#include <vector>

namespace routectl {

struct cOptions {
  bool halTable = false;                  // --hal-table: list the HAL proxy's table instead
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

// -1 to go on, otherwise the exit status after help, version or a usage
// error has been printed.
int ParseOptions(int argc, char** argv, cOptions& out);

std::string HelpText();

}  // namespace routectl

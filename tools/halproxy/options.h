// Command line of halproxy.
#pragma once

#include <set>
#include <string>

#include "kest/server.h"
#include "proxy.h"

namespace halproxy {

struct cOptions {
  enum class eBackend { kMemory, kNetlink };

  std::string listen = "127.0.0.1:3710";  // the daemon's default HAL access point
  eBackend backend = eBackend::kMemory;   // the kernel only when asked for explicitly
  eUnavailable unavailable = eUnavailable::kSkip;
  std::string logLevel = "info";
  bool syslog = false;
  std::set<std::string> interfaces;  // memory backend: the names that exist; empty = any
  // Routes of ours that this many complete refreshes did not ask for go.
  std::size_t sweepAfter = cRouteKeeper::kDefaultKeepRefreshes;
  // Operations that exist only for tests (InjectFault): refused unless set.
  bool enableTestOps = false;
  // --max-connections, --send-limit, and for a Unix socket --socket-mode,
  // --socket-group, --allow-uid, --allow-gid (the last two repeatable).
  kest::cServerLimits limits;
};

// Parses argv[1..] into out: -1 to go on, otherwise the exit status after
// help, version or a usage error has been printed.
int ParseOptions(int argc, char** argv, cOptions& out);
std::string Usage();
// The trace level that --log-level name allows; nullptr for an unknown name.
char const* MaxLevelFor(std::string const& name);

}  // namespace halproxy

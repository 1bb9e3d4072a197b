#include "options.h"

#include <cstring>

#include "kest/access_point.h"
#include "log.h"

namespace halproxy {

char const* MaxLevelFor(std::string const& name) {
  if (name == "error") return kLevelError;
  if (name == "warning") return kLevelWarning;
  if (name == "info") return kLevelInfo;
  if (name == "debug") return kLevelDebug;
  return nullptr;
}

std::string Usage() {
  return std::string("Usage: halproxy [options]\n"
         "Installs and removes IPv4 routes on behalf of the route manager.\n"
         "\n"
         "  --listen ADDR:PORT|unix:/path  where to accept requests (default 127.0.0.1:3710)\n"
         "  --backend=memory|netlink       memory: a table in memory, for tests and dry runs\n"
         "                                 (default); netlink: the kernel's main table\n"
         "  --unavailable=skip|unreachable a route whose gateway is unavailable installs\n"
         "                                 nothing (default) or an unreachable route\n"
         "  --interfaces=NAME[,NAME...]    memory backend: the interfaces that exist\n"
         "                                 (default: any valid name)\n"
         "  --sweep-after=N                routes of ours that N complete refreshes of the\n"
         "                                 route manager did not ask for are removed (default 3)\n"
         "  --enable-test-ops              accept InjectFault (tests only; refused otherwise)\n"
         ) +
         kest::kLimitOptionsUsage +
         "  --log-level=error|warning|info|debug  (default info; debug logs every request)\n"
         "  --syslog                       log to syslog instead of standard error\n"
         "  --help, --version\n";
}

namespace {

// "--name=value" or "--name value"; advances i past what it used.
bool TakeValue(int argc, char const* const* argv, int& i, char const* name, std::string& value,
               bool& matched, std::string& error) {
  std::string arg = argv[i];
  std::string prefix = std::string(name) + "=";
  matched = false;
  if (arg == name) {
    matched = true;
    if (i + 1 >= argc) {
      error = std::string("option ") + name + " needs a value";
      return false;
    }
    value = argv[++i];
    return true;
  }
  if (arg.compare(0, prefix.size(), prefix) == 0) {
    matched = true;
    value = arg.substr(prefix.size());
    return true;
  }
  return true;
}

std::string BadValue(char const* name, std::string const& value, char const* expected) {
  return std::string("bad value '") + value + "' for " + name + " (expected " + expected + ")";
}

bool SplitInterfaces(std::string const& list, std::set<std::string>& out, std::string& error) {
  std::size_t start = 0;
  for (;;) {
    std::size_t comma = list.find(',', start);
    std::string name = list.substr(start, comma == std::string::npos ? comma : comma - start);
    if (!ValidInterfaceName(name)) {
      error = BadValue("--interfaces", name, "interface names of 1 to 15 characters");
      return false;
    }
    out.insert(name);
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

// The listener's limits. matched tells whether argv[i] was one of them;
// unixOnly is set by those that only a Unix socket has.
bool TakeLimit(int argc, char const* const* argv, int& i, kest::cServerLimits& limits,
               bool& matched, bool& unixOnly, std::string& error) {
  std::string const arg = argv[i];
  std::string const name = arg.substr(0, arg.find('='));
  kest::cServerLimits scratch;
  std::string value, why;
  bool ok = true, needsUnix = false;
  matched = false;
  if (!kest::TakeLimitOption(name, "1", scratch, ok, needsUnix, why)) return true;
  if (!TakeValue(argc, argv, i, name.c_str(), value, matched, error)) return false;
  kest::TakeLimitOption(name, value, limits, ok, needsUnix, why);
  if (!ok) {
    error = "bad value '" + value + "' for " + name + ": " + why;
    return false;
  }
  unixOnly = unixOnly || needsUnix;
  return true;
}

}  // namespace

bool ParseOptions(int argc, char const* const* argv, cOptions& out, std::string& error) {
  cOptions opt;
  bool unixOnly = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    std::string value;
    bool matched = false;
    if (arg == "--help" || arg == "-h") {
      opt.help = true;
      continue;
    }
    if (arg == "--version") {
      opt.version = true;
      continue;
    }
    if (arg == "--syslog") {
      opt.syslog = true;
      continue;
    }
    if (arg == "--enable-test-ops") {
      opt.enableTestOps = true;
      continue;
    }
    if (!TakeValue(argc, argv, i, "--sweep-after", value, matched, error)) return false;
    if (matched) {
      std::string why;
      if (!kest::ParseCount(value, 1, opt.sweepAfter, why)) {
        error = "bad value '" + value + "' for --sweep-after: " + why;
        return false;
      }
      continue;
    }
    if (!TakeValue(argc, argv, i, "--listen", value, matched, error)) return false;
    if (matched) {
      kest::cAccessPoint ap;
      std::string why;
      if (!kest::cAccessPoint::Parse(value, ap, why)) {
        error = "bad value '" + value + "' for --listen: " + why;
        return false;
      }
      opt.listen = value;
      continue;
    }
    if (!TakeValue(argc, argv, i, "--backend", value, matched, error)) return false;
    if (matched) {
      if (value == "memory") {
        opt.backend = cOptions::eBackend::kMemory;
      } else if (value == "netlink") {
        opt.backend = cOptions::eBackend::kNetlink;
      } else {
        error = BadValue("--backend", value, "memory or netlink");
        return false;
      }
      continue;
    }
    if (!TakeValue(argc, argv, i, "--unavailable", value, matched, error)) return false;
    if (matched) {
      if (value == "skip") {
        opt.unavailable = eUnavailable::kSkip;
      } else if (value == "unreachable") {
        opt.unavailable = eUnavailable::kUnreachable;
      } else {
        error = BadValue("--unavailable", value, "skip or unreachable");
        return false;
      }
      continue;
    }
    if (!TakeValue(argc, argv, i, "--log-level", value, matched, error)) return false;
    if (matched) {
      if (MaxLevelFor(value) == nullptr) {
        error = BadValue("--log-level", value, "error, warning, info or debug");
        return false;
      }
      opt.logLevel = value;
      continue;
    }
    if (!TakeValue(argc, argv, i, "--interfaces", value, matched, error)) return false;
    if (matched) {
      if (!SplitInterfaces(value, opt.interfaces, error)) return false;
      continue;
    }
    if (!TakeLimit(argc, argv, i, opt.limits, matched, unixOnly, error)) return false;
    if (matched) continue;
    error = "unknown argument '" + arg + "'";
    return false;
  }
  if (unixOnly && opt.listen.compare(0, 5, "unix:") != 0) {
    error = "--socket-mode, --socket-group, --allow-uid, --allow-gid and --max-per-uid need "
            "--listen unix:/path";
    return false;
  }
  if (!opt.interfaces.empty() && opt.backend != cOptions::eBackend::kMemory) {
    error = "--interfaces is only for --backend=memory (the kernel knows its interfaces)";
    return false;
  }
  out = std::move(opt);
  return true;
}

}  // namespace halproxy

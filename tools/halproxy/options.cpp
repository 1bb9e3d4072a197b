#include "options.h"

#include "kest/access_point.h"
#include "kest/options.h"
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
  return std::string(
             "Usage: halproxy [options]\n"
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
             "                                 route manager did not ask for are removed (default "
             "3)\n"
             "  --enable-test-ops              accept InjectFault (tests only; refused "
             "otherwise)\n") +
         kest::kLimitOptionsUsage +
         "  --log-level=error|warning|info|debug  (default info; debug logs every request)\n"
         "  --syslog                       log to syslog instead of standard error\n"
         "  -h, --help, -V, --version\n";
}

namespace {

bool SplitInterfaces(std::string const& list, std::set<std::string>& out, std::string& why) {
  std::size_t start = 0;
  for (;;) {
    std::size_t comma = list.find(',', start);
    std::string name = list.substr(start, comma == std::string::npos ? comma : comma - start);
    if (!ValidInterfaceName(name)) {
      why = "'" + name + "' is no interface name (1 to 15 characters)";
      return false;
    }
    out.insert(name);
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

enum : int {
  kListen = kest::kLongOnly,
  kBackend,
  kUnavailable,
  kInterfaces,
  kSweepAfter,
  kTestOps,
  kLogLevel,
  kSyslog,
};

}  // namespace

int ParseOptions(int argc, char** argv, cOptions& out) {
  cOptions opt;
  bool unixOnly = false;
  kest::cCommandLine cl{"halproxy",
                        Usage(),
                        {{"listen", kListen, true},
                         {"backend", kBackend, true},
                         {"unavailable", kUnavailable, true},
                         {"interfaces", kInterfaces, true},
                         {"sweep-after", kSweepAfter, true},
                         {"enable-test-ops", kTestOps, false},
                         {"log-level", kLogLevel, true},
                         {"syslog", kSyslog, false}}};
  kest::AddLimitOptions(cl.options);
  int operand = 0;
  int const status = kest::ParseCommandLine(
      cl, argc, argv,
      [&](int key, std::string const& value, std::string& why) {
        kest::cAccessPoint ap;
        bool ok = true, needsUnix = false;
        switch (key) {
          case kListen:
            opt.listen = value;
            return kest::cAccessPoint::Parse(value, ap, why);
          case kBackend:
            opt.backend =
                value == "netlink" ? cOptions::eBackend::kNetlink : cOptions::eBackend::kMemory;
            why = "expected memory or netlink";
            return value == "memory" || value == "netlink";
          case kUnavailable:
            opt.unavailable =
                value == "unreachable" ? eUnavailable::kUnreachable : eUnavailable::kSkip;
            why = "expected skip or unreachable";
            return value == "skip" || value == "unreachable";
          case kInterfaces:
            return SplitInterfaces(value, opt.interfaces, why);
          case kSweepAfter:
            return kest::ParseCount(value, 1, opt.sweepAfter, why);
          case kTestOps:
            opt.enableTestOps = true;
            return true;
          case kLogLevel:
            opt.logLevel = value;
            why = "expected error, warning, info or debug";
            return MaxLevelFor(value) != nullptr;
          case kSyslog:
            opt.syslog = true;
            return true;
        }
        kest::TakeLimitOption(key, value, opt.limits, ok, needsUnix, why);
        unixOnly = unixOnly || needsUnix;
        return ok;
      },
      operand);
  if (status >= 0) return status;
  if (unixOnly && opt.listen.compare(0, 5, "unix:") != 0) {
    return kest::UsageError("halproxy",
                            "--socket-mode, --socket-group, --allow-uid, --allow-gid and "
                            "--max-per-uid need --listen unix:/path");
  }
  if (!opt.interfaces.empty() && opt.backend != cOptions::eBackend::kMemory) {
    return kest::UsageError(
        "halproxy", "--interfaces is only for --backend=memory (the kernel knows its interfaces)");
  }
  out = std::move(opt);
  return -1;
}

}  // namespace halproxy

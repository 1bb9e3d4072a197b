#include "routectl/options.h"

#include <cstdlib>

#include "kest/access_point.h"

#ifndef ROUTECTL_VERSION
#define ROUTECTL_VERSION "unknown"
#endif

namespace routectl {

namespace {

// Bounds that keep a typo from meaning "wait for a day".
constexpr long kMaxTimeoutMs = 600 * 1000;
constexpr long kMaxWaitSeconds = 3600;

bool ParseNumber(std::string const& text, long max, long& out) {
  if (text.empty() || text.size() > 9) return false;
  long v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  if (v > max) return false;
  out = v;
  return true;
}

}  // namespace

bool ParseOptions(std::vector<std::string> const& args, cOptions& out, std::string& error) {
  std::size_t i = 0;
  auto value = [&](std::string const& name, std::string& v) {
    if (i + 1 >= args.size()) {
      error = name + " needs a value";
      return false;
    }
    v = args[++i];
    return true;
  };
  for (; i < args.size(); ++i) {
    std::string const& a = args[i];
    std::string v;
    long n = 0;
    if (a == "--") {
      ++i;
      break;
    }
    if (a.empty() || a[0] != '-' || a == "-") break;
    if (a == "-h" || a == "--help") {
      out.action = cOptions::kHelp;
      return true;
    }
    if (a == "-V" || a == "--version") {
      out.action = cOptions::kVersion;
      return true;
    }
    if (a == "-j" || a == "--json") {
      out.json = true;
    } else if (a == "--hold") {
      out.hold = true;
    } else if (a == "--hal-table") {
      out.action = cOptions::kHalTable;
    } else if (a == "--hal") {
      if (!value(a, out.hal)) return false;
      kest::cAccessPoint ap;
      if (!kest::cAccessPoint::Parse(out.hal, ap, error)) return false;
    } else if (a == "--strict") {
      out.strict = true;
    } else if (a == "-b" || a == "--batch") {
      if (!value(a, out.batch)) return false;
    } else if (a == "-s" || a == "--server") {
      if (!value(a, out.server)) return false;
      kest::cAccessPoint ap;
      if (!kest::cAccessPoint::Parse(out.server, ap, error)) return false;
    } else if (a == "--timeout") {
      if (!value(a, v)) return false;
      if (!ParseNumber(v, kMaxTimeoutMs, n) || n == 0) {
        error = "--timeout takes milliseconds (1.." + std::to_string(kMaxTimeoutMs) + ")";
        return false;
      }
      out.timeoutMs = static_cast<int>(n);
    } else if (a == "--wait") {
      if (!value(a, v)) return false;
      if (!ParseNumber(v, kMaxWaitSeconds, n)) {
        error = "--wait takes seconds (0.." + std::to_string(kMaxWaitSeconds) + ")";
        return false;
      }
      out.waitMs = static_cast<int>(n * 1000);
    } else {
      error = "unknown option " + a;
      return false;
    }
  }
  out.words.assign(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
  if (out.action == cOptions::kHalTable) {
    if (!out.words.empty() || !out.batch.empty()) {
      error = "--hal-table takes no command";
      return false;
    }
    return true;
  }
  if (!out.batch.empty() && !out.words.empty()) {
    error = "give either -b FILE or a command, not both";
    return false;
  }
  if (out.batch.empty() && out.words.empty()) {
    error = "no command given";
    return false;
  }
  return true;
}

std::string HelpText() {
  return R"(Usage: routectl [OPTIONS] COMMAND
       routectl [OPTIONS] -b FILE
       routectl [--hal ADDR:PORT] --hal-table

Talks to the route manager as a route client: announces gateways and sets
custom routes.

Commands:
  gateway set TAG ADDR [dev IF] [type default|normal|NUMBER] [metric N]
  gateway del TAG
  route set TAG PREFIX via GW [dev IF] [src ADDR] [metric N]
  route del TAG

  PREFIX is a.b.c.d/len, a.b.c.d/netmask, a.b.c.d (a host) or default.
  A gateway without `type` is normal; a `default` gateway also becomes a
  default gateway of the system. The tags wired, wireless and vpn make that
  WAN available to the routes of the device configuration.

IMPORTANT: a custom route lives only as long as the connection of the client
that set it. When routectl exits, its connection closes and the route manager
deletes every route it set. Gateways stay until `gateway del`.
To keep routes, give all commands to one routectl:
  -b FILE       read commands from FILE (one a line, '#' starts a comment);
  -b -          read them from standard input;
  --hold        after the last command, keep the connection (and the routes)
                until SIGINT or SIGTERM (Ctrl-C); exit 1 if the route
                manager closes it first (its routes are gone).
Without --hold the routes go when the input ends.

Options:
  -s, --server ADDR:PORT   route manager's access point (default 127.0.0.1:3712)
  -j, --json               print each answer as a JSON object on one line
      --strict             stop at the first malformed input line
      --timeout MS         wait at most MS for each answer (default 10000)
      --wait SECONDS       retry a refused connection this long (default 0)
      --hal-table          print the HAL proxy's table of installed routes
                           (what the route manager has had installed) and exit
      --hal ADDR:PORT      the HAL proxy's access point (default 127.0.0.1:3710)
  -h, --help               this text
  -V, --version            the version

Output: one line per command, in input order: `ok`, or `rc=CODE TEXT`
(e.g. `rc=-101 Network is unreachable`, `rc=-100 unknown tag`).
A malformed input line is reported on standard error with its line number;
the other lines still run unless --strict is given.

Exit status: 0 when every command succeeded, 1 when any failed (or the
connection failed), 2 for usage errors and malformed input lines.
)";
}

std::string VersionText() { return std::string("routectl ") + ROUTECTL_VERSION + "\n"; }

}  // namespace routectl

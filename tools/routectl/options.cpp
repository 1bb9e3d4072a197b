#include "routectl/options.h"

#include "kest/access_point.h"
#include "kest/options.h"

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

enum : int { kHold = kest::kLongOnly, kHalTable, kHal, kStrict, kTimeout, kWait };

}  // namespace

int ParseOptions(int argc, char** argv, cOptions& out) {
  kest::cCommandLine const cl{"routectl",
                              HelpText(),
                              {{"json", 'j', false},
                               {"hold", kHold, false},
                               {"hal-table", kHalTable, false},
                               {"hal", kHal, true},
                               {"strict", kStrict, false},
                               {"batch", 'b', true},
                               {"server", 's', true},
                               {"timeout", kTimeout, true},
                               {"wait", kWait, true}},
                              true};
  int operand = 0;
  int const status = kest::ParseCommandLine(
      cl, argc, argv,
      [&](int key, std::string const& value, std::string& why) {
        kest::cAccessPoint ap;
        long n = 0;
        switch (key) {
          case 'j':
            out.json = true;
            return true;
          case kHold:
            out.hold = true;
            return true;
          case kHalTable:
            out.halTable = true;
            return true;
          case kHal:
            out.hal = value;
            return kest::cAccessPoint::Parse(value, ap, why);
          case kStrict:
            out.strict = true;
            return true;
          case 'b':
            out.batch = value;
            why = "empty";
            return !value.empty();
          case 's':
            out.server = value;
            return kest::cAccessPoint::Parse(value, ap, why);
          case kTimeout:
            why = "milliseconds (1.." + std::to_string(kMaxTimeoutMs) + ")";
            if (!ParseNumber(value, kMaxTimeoutMs, n) || n == 0) return false;
            out.timeoutMs = static_cast<int>(n);
            return true;
          case kWait:
            why = "seconds (0.." + std::to_string(kMaxWaitSeconds) + ")";
            if (!ParseNumber(value, kMaxWaitSeconds, n)) return false;
            out.waitMs = static_cast<int>(n * 1000);
            return true;
        }
        return false;
      },
      operand);
  if (status >= 0) return status;
  out.words.assign(argv + operand, argv + argc);
  if (out.halTable) {
    if (!out.words.empty() || !out.batch.empty())
      return kest::UsageError("routectl", "--hal-table takes no command");
    return -1;
  }
  if (!out.batch.empty() && !out.words.empty())
    return kest::UsageError("routectl", "give either -b FILE or a command, not both");
  if (out.batch.empty() && out.words.empty())
    return kest::UsageError("routectl", "no command given");
  return -1;
}

std::string HelpText() {
  return R"(Usage: routectl [OPTIONS] COMMAND
       routectl [OPTIONS] -b FILE
       routectl [--hal ADDR:PORT] [-j] --hal-table

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
(e.g. `rc=-101 Network is unreachable`), in batch mode after the input line
it answers (`line 5: rc=-100 unknown tag`). --hal-table prints a route a
line; with -j, each as a JSON object.
A malformed input line is reported on standard error with its line number;
the other lines still run unless --strict is given.

Exit status: 0 when every command succeeded, 1 when any failed (or the
connection failed), 2 for usage errors and malformed input lines.
)";
}

}  // namespace routectl

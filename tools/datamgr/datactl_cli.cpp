#include "datactl_cli.h"

#include <cerrno>
#include <cstring>

#include "config_json.h"
#include "dataIO/data_protocol.h"
#include "device_config.h"
#include "kest/access_point.h"
#include "kest/call_once.h"
#include "kest/format.h"
#include "kest/options.h"

namespace datamgr {

char const* const kDatactlUsage =
    "Usage: datactl [-s|--server ADDR] COMMAND [ARGS]\n"
    "Changes and inspects the data manager's store (ADDR default 127.0.0.1:3711,\n"
    "also unix:/path).\n"
    "Commands:\n"
    "  set-wan-setup NAME      make NAME the WAN setup in force\n"
    "  route-set SETUP KEY PREFIX via wired|wireless|vpn|GWADDR [desc TEXT]\n"
    "                          add or replace a routing entry (PREFIX a.b.c.d/len\n"
    "                          or a.b.c.d/m.m.m.m; GWADDR: the entry's own gateway)\n"
    "  route-del SETUP KEY     delete a routing entry\n"
    "  dump DIR                ask every connected client to dump its state into DIR\n"
    "  list [DIR]              list the directories, or the records under DIR\n"
    "Changes last until the data manager reloads its configuration file.\n"
    "  -h, --help, -V, --version\n";

namespace {

bool Count(std::vector<std::string> const& rest, std::size_t min, std::size_t max,
           std::string& error) {
  if (rest.size() - 1 >= min && rest.size() - 1 <= max) return true;
  error = rest[0] + ": wrong number of arguments";
  return false;
}

bool ParseRouteSet(std::vector<std::string> const& rest, ctl::cRequest& req, std::string& error) {
  // route-set SETUP KEY PREFIX via TARGET [desc TEXT]
  if (!(rest.size() == 6 || rest.size() == 8) || rest[4] != "via" ||
      (rest.size() == 8 && rest[6] != "desc")) {
    error = "route-set: expected SETUP KEY PREFIX via wired|wireless|vpn|GWADDR [desc TEXT]";
    return false;
  }
  req.op = ctl::kOpRouteSet;
  req.setup = rest[1];
  req.key = rest[2];
  if (!ParsePrefix(rest[3], req.network, req.netmask, error)) {
    error = "route-set: " + error;
    return false;
  }
  std::string const& target = rest[5];
  if (target == "own") {
    error = "route-set: give the gateway address itself instead of \"own\"";
    return false;
  }
  if (!SelectorFromText(target, req.selector)) {
    if (!ParseIPv4(target, req.gateway)) {
      error = "route-set: \"" + target + "\" is neither wired, wireless, vpn nor an IPv4 address";
      return false;
    }
    req.selector = dataIO::kGwSelectorOwn;
  }
  if (rest.size() == 8) req.description = rest[7];
  return true;
}

}  // namespace

int ParseDatactlArgs(int argc, char** argv, std::string& server, ctl::cRequest& req) {
  enum { kServer = 's' };
  server = kDefaultAccessPoint;
  kest::cCommandLine const cl{"datactl", kDatactlUsage, {{"server", kServer, true}}, true};
  int operand = 0;
  int const status = kest::ParseCommandLine(
      cl, argc, argv,
      [&](int, std::string const& value, std::string& why) {
        kest::cAccessPoint ap;
        server = value;
        return kest::cAccessPoint::Parse(value, ap, why);
      },
      operand);
  if (status >= 0) return status;
  std::string error;
  if (!ParseDatactlCommand(std::vector<std::string>(argv + operand, argv + argc), req, error))
    return kest::UsageError("datactl", error);
  return -1;
}

bool ParseDatactlCommand(std::vector<std::string> const& rest, ctl::cRequest& req,
                         std::string& error) {
  if (rest.empty()) {
    error = "no command given";
    return false;
  }
  std::string const& cmd = rest[0];
  req = ctl::cRequest{};
  if (cmd == "set-wan-setup") {
    if (!Count(rest, 1, 1, error)) return false;
    req.op = ctl::kOpSetWanSetup;
    req.setup = rest[1];
  } else if (cmd == "route-set") {
    return ParseRouteSet(rest, req, error);
  } else if (cmd == "route-del") {
    if (!Count(rest, 2, 2, error)) return false;
    req.op = ctl::kOpRouteDel;
    req.setup = rest[1];
    req.key = rest[2];
  } else if (cmd == "dump") {
    if (!Count(rest, 1, 1, error)) return false;
    req.op = ctl::kOpDump;
    req.dir = rest[1];
  } else if (cmd == "list") {
    if (!Count(rest, 0, 1, error)) return false;
    req.op = ctl::kOpList;
    if (rest.size() == 2) req.dir = rest[1];
  } else {
    error = "unknown command " + cmd;
    return false;
  }
  return true;
}

bool SendControl(std::string const& server, ctl::cRequest const& req, ctl::cReply& reply,
                 std::string& error, int timeoutMs) {
  kest::cSerializeBuffer body, answer;
  ctl::Encode(req, body);
  if (!kest::CallOnce(server, dataIO::proto::kService, timeoutMs, req.op, body, answer, error))
    return false;
  std::string why;
  if (!ctl::Decode(answer, reply, why)) {
    error = "bad reply from " + server + ": " + why;
    return false;
  }
  return true;
}

}  // namespace datamgr

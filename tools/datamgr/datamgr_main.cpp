// datamgr: the data manager. Serves the device's data store to data clients
// and carries out datactl's requests; SIGHUP reloads the configuration file.
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "config_json.h"
#include "datactl_cli.h"
#include "kest/loop.h"
#include "kest/service.h"
#include "kest/trace.h"
#include "manager.h"

namespace {

char const* const kUsage =
    "Usage: datamgr [OPTIONS]\n"
    "Serves the device's data store to data clients and datactl.\n"
    "  --listen ADDR   where to listen (default 127.0.0.1:3711; a.b.c.d:port or unix:/path)\n"
    "  --config FILE   device configuration (JSON); SIGHUP reloads it\n"
    "  --max-connections N   connections served at once (default 64)\n"
    "  --send-limit BYTES    data queued for a client that does not read before it\n"
    "                        is disconnected (default 1048576)\n"
    "  --socket-mode OCTAL   Unix socket: the file's mode (default 0660)\n"
    "  --socket-group GROUP  Unix socket: the file's group (name or number)\n"
    "  --allow-uid USERS     Unix socket: serve only these users and groups (names\n"
    "  --allow-gid GROUPS    or numbers, comma-separated; repeatable)\n"
    "  --syslog        log to syslog instead of stderr\n"
    "  --help          this text\n"
    "  --version       the version\n";

int g_hupPipe[2] = {-1, -1};

void OnHangup(int) {
  int const saved = errno;
  char const byte = 'H';
  ssize_t const n = write(g_hupPipe[1], &byte, 1);
  (void)n;
  errno = saved;
}

struct cOptions {
  std::string listen = datamgr::kDefaultAccessPoint;
  std::string config;
  bool syslog = false;
  kest::cServerLimits limits;
  bool unixOnly = false;  // an option that only a Unix socket has was given
};

// One of the listener's limits; false with the reason in why.
bool ParseLimit(std::string const& arg, std::string const& value, cOptions& opt, std::string& why) {
  kest::cServerLimits& l = opt.limits;
  bool const unixOnly = arg != "--max-connections" && arg != "--send-limit";
  opt.unixOnly = opt.unixOnly || unixOnly;
  if (value.empty()) {
    why = "empty";
    return false;
  }
  if (arg == "--max-connections") return kest::ParseCount(value, 1, l.maxConnections, why);
  if (arg == "--send-limit") return kest::ParseCount(value, kest::kMinSendLimit, l.sendLimit, why);
  if (arg == "--socket-mode") return kest::ParseSocketMode(value, l.socketMode, why);
  if (arg == "--allow-uid") return kest::ParseIdList(value, false, l.allowUids, why);
  if (arg == "--allow-gid") return kest::ParseIdList(value, true, l.allowGids, why);
  l.socketGroup = value;  // --socket-group: looked up when the socket is made
  return true;
}

bool IsLimit(std::string const& arg) {
  for (char const* name : {"--max-connections", "--send-limit", "--socket-mode", "--socket-group",
                           "--allow-uid", "--allow-gid"}) {
    if (arg == name) return true;
  }
  return false;
}

// False: exit now with exitCode (0 after --help or --version, 2 for a usage error).
bool ParseArgs(int argc, char** argv, cOptions& opt, int& exitCode) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    std::string value;
    bool hasValue = false;
    std::size_t const eq = arg.find('=');
    if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
      hasValue = true;
    }
    auto take = [&](std::string& out) {
      if (hasValue) {
        out = value;
        return true;
      }
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    if (arg == "--help" && !hasValue) {
      std::fputs(kUsage, stdout);
      exitCode = 0;
      return false;
    } else if (arg == "--version" && !hasValue) {
      std::printf("datamgr %s\n", ROUTEMGR_VERSION);
      exitCode = 0;
      return false;
    } else if (arg == "--syslog" && !hasValue) {
      opt.syslog = true;
    } else if (arg == "--listen" || arg == "--config" || IsLimit(arg)) {
      std::string limit, why;
      if (!take(arg == "--listen" ? opt.listen : arg == "--config" ? opt.config : limit)) {
        std::fprintf(stderr, "datamgr: %s needs a value\n%s", arg.c_str(), kUsage);
        exitCode = 2;
        return false;
      }
      if (IsLimit(arg) && !ParseLimit(arg, limit, opt, why)) {
        std::fprintf(stderr, "datamgr: bad value '%s' for %s: %s\n", limit.c_str(), arg.c_str(),
                     why.c_str());
        exitCode = 2;
        return false;
      }
    } else {
      std::fprintf(stderr, "datamgr: unknown argument %s\n%s", argv[i], kUsage);
      exitCode = 2;
      return false;
    }
  }
  kest::cAccessPoint ap;
  std::string error;
  if (!kest::cAccessPoint::Parse(opt.listen, ap, error)) {
    std::fprintf(stderr, "datamgr: --listen: %s\n", error.c_str());
    exitCode = 2;
    return false;
  }
  if (opt.unixOnly && ap.kind != kest::cAccessPoint::kUnix) {
    std::fprintf(stderr,
                 "datamgr: --socket-mode, --socket-group, --allow-uid and --allow-gid need "
                 "--listen unix:/path\n");
    exitCode = 2;
    return false;
  }
  return true;
}

bool InstallHangup() {
  if (pipe2(g_hupPipe, O_NONBLOCK | O_CLOEXEC) != 0) return false;
  struct sigaction sa {};
  sa.sa_handler = OnHangup;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  return sigaction(SIGHUP, &sa, nullptr) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  cOptions opt;
  int exitCode = 0;
  if (!ParseArgs(argc, argv, opt, exitCode)) return exitCode;
  kest::cTracepoint::SelectSink(opt.syslog ? "syslog" : "stderr", "datamgr");
  signal(SIGPIPE, SIG_IGN);

  datamgr::cDeviceConfig config;
  if (!opt.config.empty()) {
    std::string error;
    if (!datamgr::LoadDeviceConfig(opt.config, config, error)) {
      std::fprintf(stderr, "datamgr: %s\n", error.c_str());
      return 1;
    }
  }
  kest::cService service;
  service.Init("datamgr", 0);
  datamgr::cDataManager manager(&service, std::move(config), opt.config);
  manager.SetLimits(opt.limits);
  std::string error;
  if (!manager.Listen(opt.listen, error)) {
    std::fprintf(stderr, "datamgr: %s\n", error.c_str());
    return 1;
  }
  if (!InstallHangup()) {
    std::fprintf(stderr, "datamgr: cannot handle SIGHUP: %s\n", std::strerror(errno));
    return 1;
  }
  kest::Loop().WatchFd(g_hupPipe[0], EPOLLIN, [&manager](std::uint32_t) {
    char buf[64];
    while (read(g_hupPipe[0], buf, sizeof buf) > 0) {
    }
    std::string why;
    manager.Reload(why);
  });
  // SIGTERM and SIGINT end the loop (installed by ProcessMessages).
  service.ProcessMessages();
  manager.Close();
  return 0;
}

// datamgr: the data manager. Serves the device's data store to data clients
// and carries out datactl's requests; SIGHUP reloads the configuration file.
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "config_json.h"
#include "datactl_cli.h"
#include "kest/loop.h"
#include "kest/server.h"
#include "kest/service.h"
#include "kest/trace.h"
#include "manager.h"

namespace {

std::string Usage() {
  return std::string(
             "Usage: datamgr [OPTIONS]\n"
             "Serves the device's data store to data clients and datactl.\n"
             "  --listen ADDR:PORT|unix:/path  where to listen (default 127.0.0.1:3711)\n"
             "  --config FILE                  device configuration (JSON); SIGHUP reloads it\n"
             "  --admin-gid=GROUP[,GROUP...]   Unix socket: besides root, the groups whose\n"
             "                                 members may change the store and ask for\n"
             "                                 dumps (default: root only); repeatable\n") +
         kest::kLimitOptionsUsage +
         "  --syslog                       log to syslog instead of stderr\n"
         "  --help, --version\n";
}

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
  std::set<unsigned> adminGids;
  bool unixOnly = false;  // an option that only a Unix socket has was given
};

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
      std::fputs(Usage().c_str(), stdout);
      exitCode = 0;
      return false;
    } else if (arg == "--version" && !hasValue) {
      std::printf("datamgr %s\n", ROUTEMGR_VERSION);
      exitCode = 0;
      return false;
    } else if (arg == "--syslog" && !hasValue) {
      opt.syslog = true;
    } else if (arg.rfind("--", 0) == 0 && arg != "--help" && arg != "--version" &&
               arg != "--syslog") {
      std::string text, why;
      bool ok = true, unixOnly = false;
      if (!take(arg == "--listen" ? opt.listen : arg == "--config" ? opt.config : text)) {
        std::fprintf(stderr, "datamgr: %s needs a value\n%s", arg.c_str(), Usage().c_str());
        exitCode = 2;
        return false;
      }
      if (arg == "--admin-gid") {
        ok = !text.empty() && kest::ParseIdList(text, true, opt.adminGids, why);
        unixOnly = true;
        if (text.empty()) why = "empty";
      } else if (arg != "--listen" && arg != "--config" &&
                 !kest::TakeLimitOption(arg, text, opt.limits, ok, unixOnly, why)) {
        std::fprintf(stderr, "datamgr: unknown argument %s\n%s", argv[i], Usage().c_str());
        exitCode = 2;
        return false;
      }
      opt.unixOnly = opt.unixOnly || unixOnly;
      if (!ok) {
        std::fprintf(stderr, "datamgr: bad value '%s' for %s: %s\n", text.c_str(), arg.c_str(),
                     why.c_str());
        exitCode = 2;
        return false;
      }
    } else {
      std::fprintf(stderr, "datamgr: unknown argument %s\n%s", argv[i], Usage().c_str());
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
                 "datamgr: --socket-mode, --socket-group, --allow-uid, --allow-gid, "
                 "--max-per-uid and --admin-gid need --listen unix:/path\n");
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
  manager.SetAdminGids(opt.adminGids);
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

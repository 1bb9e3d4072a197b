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
#include "kest/access_point.h"
#include "kest/loop.h"
#include "kest/options.h"
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
         "  -h, --help, -V, --version\n";
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

enum : int { kListen = kest::kLongOnly, kConfig, kAdminGid, kSyslog };

// -1 to go on, otherwise the exit status after help, version or a usage error.
int ParseArgs(int argc, char** argv, cOptions& opt) {
  kest::cCommandLine cl{"datamgr",
                        Usage(),
                        {{"listen", kListen, true},
                         {"config", kConfig, true},
                         {"admin-gid", kAdminGid, true},
                         {"syslog", kSyslog, false}}};
  kest::AddLimitOptions(cl.options);
  int operand = 0;
  int const status = kest::ParseCommandLine(
      cl, argc, argv,
      [&](int key, std::string const& value, std::string& why) {
        kest::cAccessPoint ap;
        bool ok = true, unixOnly = false;
        switch (key) {
          case kListen:
            opt.listen = value;
            return kest::cAccessPoint::Parse(value, ap, why);
          case kConfig:
            opt.config = value;
            return true;
          case kAdminGid:
            opt.unixOnly = true;
            why = "empty";
            return !value.empty() && kest::ParseIdList(value, true, opt.adminGids, why);
          case kSyslog:
            opt.syslog = true;
            return true;
        }
        kest::TakeLimitOption(key, value, opt.limits, ok, unixOnly, why);
        opt.unixOnly = opt.unixOnly || unixOnly;
        return ok;
      },
      operand);
  if (status >= 0) return status;
  if (opt.unixOnly && opt.listen.compare(0, 5, "unix:") != 0) {
    return kest::UsageError("datamgr",
                            "--socket-mode, --socket-group, --allow-uid, --allow-gid, "
                            "--max-per-uid and --admin-gid need --listen unix:/path");
  }
  return -1;
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
  if (int const status = ParseArgs(argc, argv, opt); status >= 0) return status;
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

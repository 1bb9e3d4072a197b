// SIGUSR1 asks for a state dump into /tmp. Building the dump allocates and
// writes a file, which must not run inside a handler that may interrupt the
// loop in the middle of malloc or stdio; the handler only writes a byte to
// a pipe that the loop watches, and the dump is written between two messages.
#include "diag/dump_signal.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "core/route_mgr_service.h"
#include "kest/loop.h"

cRouteMgrService* g_service = nullptr;

namespace {
constexpr char const* kSignalDumpDir = "/tmp";
int g_dumpPipe[2] = {-1, -1};

void OnDumpPipe(std::uint32_t) {
  char buf[64];
  // Several signals before the loop gets here make one dump: it shows the
  // state as it is now either way.
  while (read(g_dumpPipe[0], buf, sizeof buf) > 0) {
  }
  if (g_service != nullptr) {
    WriteDump(g_service, SIG_REQ, kSignalDumpDir);
  }
}

// Without the pipe a SIGUSR1 dumps nothing; the daemon serves on, and says so once.
void OpenDumpPipe() {
  if (g_dumpPipe[0] >= 0) return;
  if (pipe2(g_dumpPipe, O_NONBLOCK | O_CLOEXEC) != 0 ||
      !kest::Loop().WatchFd(g_dumpPipe[0], EPOLLIN, OnDumpPipe)) {
    printf("Unable to watch for dump requests (errno:%d/%s)\n", errno, strerror(errno));
    fflush(stdout);
  }
}
}  // namespace

void SignalHandler(int signo) {
  if (signo != SIGUSR1 || g_dumpPipe[1] < 0) {
    return;
  }
  int const saved = errno;
  char const byte = 1;
  ssize_t ignored = write(g_dumpPipe[1], &byte, 1);  // a full pipe already holds a request
  (void)ignored;
  errno = saved;
}

void InstallDumpSignal(cRouteMgrService* service) {
  g_service = service;
  OpenDumpPipe();
  // No SA_RESTART: a dump request interrupts a blocked call, which is retried.
  struct sigaction action {};
  action.sa_handler = SignalHandler;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGUSR1, &action, nullptr) == -1) {
    printf("Unable to register signal handler (errno:%d/%s)\n", errno, strerror(errno));
    fflush(stdout);
  }
}

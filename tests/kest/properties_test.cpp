#include "kest/properties.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>

#include "kest/trace.h"

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

TEST(Properties, OverridesWinOverTheFileInEitherSpelling) {
  std::string const path = "/tmp/kest-props-" + std::to_string(getpid());
  std::ofstream(path) << "# comment\n\ns.a=file\ns.b=file\n  s.c = file = 3 \n";
  std::istringstream line("prog --prop s.a=cli --props " + path +
                          " --prop=s.b=cli=x --prop kest.trace=off "
                          "--props=-/nonexistent/routemgr.conf");
  std::vector<std::string> args{std::istream_iterator<std::string>(line), {}};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  kest::kestInit(int(args.size()), argv.data(), "extra usage");
  unlink(path.c_str());
  auto& p = kest::kestProperties();
  EXPECT_EQ(p.GetStringForKey("s.a", "def"), "cli");
  EXPECT_EQ(p.GetStringForKey("s.b", "def"), "cli=x");
  EXPECT_EQ(p.GetStringForKey("s.c", "def"), "file = 3");
  CaptureStderr();
  KEST_TRACE("M", "001", "hidden");
  EXPECT_EQ(GetCapturedStderr(), "");
  kest::kestDeinit(true);
}

TEST(Trace, OneLineOnStderrPerTraceAndNothingOnStdout) {
  ASSERT_TRUE(kest::cTracepoint::SelectSink("stderr"));
  ::testing::internal::CaptureStdout();
  CaptureStderr();
  kest::cTracepoint::SetMaxLevel("004");
  kest::cTracepoint::Call("Mod", "005", 0, "hidden", "", "src/file.cpp", 7);
  kest::cTracepoint::SetMaxLevel("999");
  kest::cTracepoint::Call("Mod", "005", 0, "two\nlines\n", "", "src/file.cpp", 7);
  EXPECT_EQ(GetCapturedStderr(), "Mod 005 file.cpp:7 two lines\n");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

// SIGUSR1 comes without SA_RESTART (as the daemon installs it) while a child's
// trace sink is full: standard error a pipe nobody drains, or the syslog
// daemon's socket (/dev/log in a mount namespace of the child's, as OpenWrt's
// procd scripts have every program trace). Every write that waits for room is
// interrupted, again and again, and still each line arrives whole, with its
// priority for syslog; also once standard error has been made non-blocking.
TEST(Trace, NoLineLostWhenSignalsInterruptWritesToAFullSink) {
  constexpr int kLines = 3000;  // some 300 KiB: the sink fills many times over
  for (std::string const sink : {"stderr", "syslog"}) {
    SCOPED_TRACE(sink);
    bool const syslog = sink == "syslog";
    if (syslog && geteuid() != 0) GTEST_SKIP() << "syslog needs root for a mount namespace";
    std::string const logPath = "/tmp/kest-syslog-" + std::to_string(getpid());
    sockaddr_un addr{AF_UNIX, {}};
    logPath.copy(addr.sun_path, sizeof addr.sun_path - 1);
    int fds[2];
    if (syslog) {  // the daemon's end: a datagram socket the child finds at /dev/log
      fds[0] = socket(AF_UNIX, SOCK_DGRAM, 0);
      unlink(logPath.c_str());
      ASSERT_EQ(0, bind(fds[0], reinterpret_cast<sockaddr*>(&addr), sizeof addr));
      fds[1] = open("/dev/null", O_WRONLY);  // the child's standard error
    } else {
      ASSERT_EQ(0, pipe(fds));
    }
    struct sigaction action = {}, before;  // the child's from the start
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &before);
    pid_t const pid = fork();
    if (pid == 0) {
      if (syslog && (unshare(CLONE_NEWNS) != 0 ||
                     mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                     mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0 ||
                     close(open("/dev/log", O_CREAT | O_WRONLY, 0600)) != 0 ||
                     mount(logPath.c_str(), "/dev/log", nullptr, MS_BIND, nullptr) != 0))
        _exit(3);
      dup2(fds[1], STDERR_FILENO);
      kest::cTracepoint::SelectSink(sink, "probe");
      std::string const filler(90, 'x');
      for (int i = 0; i < kLines; ++i) {
        if (i == kLines / 2) fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);  // somebody's doing
        KEST_TRACE("M", "005", "line %d %s", i, filler.c_str());
      }
      _exit(0);
    }
    sigaction(SIGUSR1, &before, nullptr);
    ASSERT_GT(pid, 0);
    close(fds[1]);
    std::string out;
    char buf[512];
    int datagrams = 0;
    for (;;) {  // room for a few lines at a time, a signal each time
      kill(pid, SIGUSR1);
      pollfd p{fds[0], POLLIN, 0};
      if (poll(&p, 1, 2000) <= 0) break;  // a datagram socket has no end of file
      ssize_t const n = read(fds[0], buf, sizeof buf);
      if (n <= 0) break;
      out.append(buf, static_cast<std::size_t>(n)) += syslog ? "\n" : "";
      if (syslog && ++datagrams == kLines) break;
    }
    close(fds[0]);
    unlink(logPath.c_str());
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    if (syslog && WIFEXITED(status) && WEXITSTATUS(status) == 3) GTEST_SKIP() << "cannot mount";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    std::istringstream lines(out);
    std::string const prefix = syslog ? "<30>" : "";  // the daemon facility, informational
    std::string const from = syslog ? " probe[" + std::to_string(pid) + "]: M 005 " : "M 005 ";
    int next = 0;
    for (std::string line; std::getline(lines, line); ++next) {
      ASSERT_EQ(line.rfind(prefix, 0), 0u) << line;
      ASSERT_NE(line.find(from), std::string::npos) << line;
      ASSERT_NE(line.find(" line " + std::to_string(next) + " xxx"), std::string::npos) << line;
    }
    EXPECT_EQ(next, kLines);
  }
}

}  // namespace

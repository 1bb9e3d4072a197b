#include "kest/properties.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "kest/trace.h"

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

class PropertiesTest : public ::testing::Test {
 protected:
  void TearDown() override {
    unlink(path.c_str());
    kest::kestDeinit(true);
  }
  void Write(std::string const& text) { std::ofstream(path) << text; }
  void Init(std::vector<std::string> args) {  // the program name comes first
    args.insert(args.begin(), "prog");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    kest::kestInit(int(args.size()), argv.data(), "extra usage");
  }
  std::string path = "/tmp/kest-props-" + std::to_string(getpid());
};

TEST_F(PropertiesTest, OverridesWinOverTheFileInEitherSpelling) {
  Write("# comment\n\ns.a=file\ns.b=file\n  s.c = file = 3 \n");
  Init({"--prop", "s.a=cli", "--props", path, "--prop=s.b=cli=x", "--prop", "kest.trace=off",
        "--props=-/nonexistent/routemgr.conf"});
  auto& p = kest::kestProperties();
  EXPECT_EQ(p.GetStringForKey("s.a", "def"), "cli");
  EXPECT_EQ(p.GetStringForKey("s.b", "def"), "cli=x");
  EXPECT_EQ(p.GetStringForKey("s.c", "def"), "file = 3");
  CaptureStderr();
  KEST_TRACE("M", "001", "hidden");
  EXPECT_EQ(GetCapturedStderr(), "");
}

using PropertiesDeathTest = PropertiesTest;

// The other faults of the command line are run with every program (tests/e2e).
TEST_F(PropertiesDeathTest, AnOptionalFileThatExistsMustBeGood) {
  Write("good=1\nbad line\n");
  EXPECT_EXIT(Init({"--props=-" + path}), ::testing::ExitedWithCode(2), ":2: expected key=value");
}

TEST(Trace, OneLineOnStderrPerTraceAndNothingOnStdout) {
  ASSERT_TRUE(kest::cTracepoint::SelectSink("stderr"));
  std::pair<char const*, char const*> const cases[] = {
      // maximum level, what 005 writes
      {"004", ""},
      {"999", "Mod 005 file.cpp:7 two lines\n"},
  };
  for (auto const& [maxLevel, want] : cases) {
    kest::cTracepoint::SetMaxLevel(maxLevel);
    ::testing::internal::CaptureStdout();
    CaptureStderr();
    kest::cTracepoint::Call("Mod", "005", 0, "two\nlines\n", "", "src/file.cpp", 7);
    EXPECT_EQ(GetCapturedStderr(), want) << maxLevel;
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  }
}

// SIGUSR1 comes without SA_RESTART (as the daemon installs it) while a child's
// standard error is a full pipe: every write that waits for room is
// interrupted, again and again, and still each line arrives whole; also once
// the pipe has been made non-blocking.
TEST(Trace, NoLineLostWhenSignalsInterruptWritesToAFullStderr) {
  constexpr int kLines = 3000;  // some 300 KiB: the pipe fills many times over
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  struct sigaction action = {}, before;  // the child's from the start
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, &before);
  pid_t const pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDERR_FILENO);
    kest::cTracepoint::SelectSink("stderr");
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
  for (ssize_t n = 1; n > 0;) {  // room for a few lines at a time, a signal each time
    kill(pid, SIGUSR1);
    n = read(fds[0], buf, sizeof buf);
    if (n > 0) out.append(buf, static_cast<std::size_t>(n));
  }
  close(fds[0]);
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  std::istringstream lines(out);
  int next = 0;
  for (std::string line; std::getline(lines, line); ++next)
    ASSERT_NE(line.find(" line " + std::to_string(next) + " xxx"), std::string::npos) << line;
  EXPECT_EQ(next, kLines);
}

}  // namespace

// A real program as a child process with its output in a log file: started,
// signalled, waited for, and stopped on every path (SIGTERM, then SIGKILL).
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/poll.h"

namespace testsupport {

constexpr int kStopTimeoutMs = 5000;
constexpr int kNotEnded = -1000;  // Status() while it runs, or before it ran

// Under user-mode emulation of the target (cross builds: the toolchain's
// emulator line sets ROUTEMGR_EMULATED) this test is an ARM program in
// qemu-arm, which cannot start another ARM program by itself: the kernel
// has to hand ARM executables to qemu-arm (binfmt_misc).
inline bool Emulated() { return std::getenv("ROUTEMGR_EMULATED") != nullptr; }
// Why this test cannot start the programs under test; "" when it can.
std::string CannotStartPrograms();

class cProcess {
 public:
  cProcess() = default;
  cProcess(std::vector<std::string> argv, std::string log, std::vector<std::string> env = {}) {
    Start(std::move(argv), std::move(log), std::move(env));
  }
  ~cProcess() { Stop(); }
  cProcess(cProcess const&) = delete;
  cProcess& operator=(cProcess const&) = delete;

  // Runs argv (argv[0] a path, or a name looked up in PATH) with env's
  // "NAME=value" entries added, stdin from /dev/null, stdout and stderr
  // appended to log. A running one is stopped first.
  void Start(std::vector<std::string> argv, std::string log, std::vector<std::string> env = {});
  bool Running();
  void Signal(int sig) const {
    if (m_pid > 0) kill(m_pid, sig);
  }
  bool WaitExit(int timeoutMs = kStopTimeoutMs) {
    return PollUntil([this] { return !Running(); }, timeoutMs);
  }
  // SIGTERM, then SIGKILL if it will not end: Status().
  int Stop() {
    Signal(SIGTERM);
    return WaitExit() ? m_status : Kill();
  }
  // Gone without a word, as after a crash: Status().
  int Kill() {
    Signal(SIGKILL);
    WaitExit();
    return m_status;
  }
  // Its exit code, -signal when a signal ended it, kNotEnded while it runs.
  int Status() const { return m_status; }
  std::string Log() const { return ReadFile(m_log); }
  bool Logged(std::string const& text) const { return Log().find(text) != std::string::npos; }
  bool WaitForLog(std::string const& text, int timeoutMs = kPollTimeoutMs) const {
    return PollUntil([&] { return Logged(text); }, timeoutMs);
  }

 private:
  std::string m_log;
  pid_t m_pid = -1;
  int m_status = kNotEnded;
};

// Prints "program started: PATH: ELF ... MACHINE" once per program and test
// process, so a log shows which build ran (the target's or the host's).
// Start() does it for every program it runs.
void NoteMachine(std::string const& path);

// A shell command run to its end: what it wrote to stdout and stderr.
std::string Shell(std::string const& command);

}  // namespace testsupport

// A real program as a child process with its output in a log file: started,
// signalled, waited for, and stopped on every path (SIGTERM, then SIGKILL).
#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>
#include <vector>

#include "support/poll.h"

namespace testsupport {

constexpr int kNotEnded = -1000;  // Status() while it runs, or before it ran

// Why this test cannot start the programs under test; "" when it can.
std::string CannotStartPrograms();
// Prints "program started: PATH: ELF ... MACHINE" once per program, so a
// log shows which build ran (the target's or the host's).
void NoteMachine(std::string const& path);
// A shell command run to its end: what it wrote to stdout and stderr.
std::string Shell(std::string const& command);

class cProcess {
 public:
  cProcess() = default;
  cProcess(std::vector<std::string> argv, std::string log, std::vector<std::string> env = {}) {
    Start(std::move(argv), std::move(log), std::move(env));
  }
  ~cProcess() { Stop(); }
  cProcess(cProcess const&) = delete;

  // Runs argv (argv[0] a path, or a name looked up in PATH) with env's
  // "NAME=value" entries added, stdin from /dev/null, stdout and stderr
  // appended to log. A running one is stopped first.
  void Start(std::vector<std::string> argv, std::string log, std::vector<std::string> env = {});
  bool Running();
  void Signal(int sig) const {
    if (m_pid > 0) kill(m_pid, sig);
  }
  bool WaitExit(int timeoutMs = 5000) {
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

}  // namespace testsupport

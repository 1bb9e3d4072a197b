// Test harness for end-to-end runs: real processes started with fork/exec,
// their output captured to files, stopped on every path (RAII: SIGTERM,
// then SIGKILL), and bounded waits by polling instead of sleeps.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace e2e {

// Long enough for a loaded CI machine, short enough that a hang fails fast.
constexpr int kStartTimeoutMs = 10000;
constexpr int kStopTimeoutMs = 5000;

// Polls cond every stepMs until it holds or timeoutMs has passed.
bool PollUntil(std::function<bool()> const& cond, int timeoutMs, int stepMs = 20);

// n distinct ports on 127.0.0.1 that were free a moment ago (bound to port
// 0 by the kernel, then released), so concurrent test runs do not collide.
std::vector<std::uint16_t> FreePorts(std::size_t n);
// Whether something accepts connections at "a.b.c.d:port" or "unix:/path".
bool Accepts(std::string const& accessPoint);

std::string ReadFile(std::string const& path);
std::vector<std::string> SplitLines(std::string const& text);

// A private directory, removed with its content at the end of the test.
class cTempDir {
 public:
  cTempDir();
  ~cTempDir();
  cTempDir(const cTempDir&) = delete;
  cTempDir& operator=(const cTempDir&) = delete;
  std::string const& Path() const { return m_path; }

 private:
  std::string m_path;
};

class cProcess {
 public:
  // argv[0] is the program's path. stdout and stderr both go to logPath.
  cProcess(std::string name, std::vector<std::string> argv, std::string logPath);
  ~cProcess();  // Stop()
  cProcess(const cProcess&) = delete;
  cProcess& operator=(const cProcess&) = delete;

  // Extra "NAME=value" entries for its environment; before Start().
  void AddEnv(std::string entry) { m_env.push_back(std::move(entry)); }
  bool Start();
  // SIGTERM, then SIGKILL after timeoutMs. The exit status as Status() says.
  int Stop(int timeoutMs = kStopTimeoutMs);
  void Signal(int sig) const;
  // Waits for the process to end by itself; false if it is still running.
  bool WaitExit(int timeoutMs);
  bool Running();
  // Exit code when it exited, -signal when a signal ended it, -1000 while
  // it runs or was never started.
  int Status() const { return m_status; }
  pid_t Pid() const { return m_pid; }
  std::string const& Name() const { return m_name; }
  std::string const& LogPath() const { return m_log; }
  std::string Log() const { return ReadFile(m_log); }
  // How often text occurs in the log.
  int CountInLog(std::string const& text) const;
  bool WaitForLog(std::string const& text, int timeoutMs, int occurrences = 1) const;

 private:
  bool Reap(bool block);

  std::string m_name;
  std::vector<std::string> m_argv;
  std::vector<std::string> m_env;
  std::string m_log;
  pid_t m_pid = -1;
  int m_status = -1000;
};

struct cToolRun {
  int status = -1000;  // as cProcess::Status()
  std::string out;
  std::string err;
};

// Runs argv to its end (killed after timeoutMs) with input as its standard
// input; stdout and stderr are kept in filesBase + ".out" / ".err".
cToolRun RunTool(std::vector<std::string> const& argv, std::string const& filesBase,
                 std::string const& input = "", int timeoutMs = kStartTimeoutMs);

}  // namespace e2e

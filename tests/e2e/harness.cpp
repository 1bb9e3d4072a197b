#include "e2e/harness.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "kest/access_point.h"

namespace e2e {

namespace {

using Clock = std::chrono::steady_clock;

// In the child, between fork and exec: only async-signal-safe calls.
[[noreturn]] void ExecChild(std::vector<char*> const& argv, std::vector<char*> const& envp,
                            char const* in, char const* out, char const* err) {
  setpgid(0, 0);  // a Ctrl-C at the terminal is for the test runner, not its children
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  int fdIn = open(in, O_RDONLY);
  int fdOut = open(out, O_WRONLY | O_CREAT | O_APPEND, 0644);
  int fdErr = err == out ? fdOut : open(err, O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fdIn < 0 || fdOut < 0 || fdErr < 0) _exit(126);
  dup2(fdIn, 0);
  dup2(fdOut, 1);
  dup2(fdErr, 2);
  execve(argv[0], argv.data(), envp.data());
  _exit(127);
}

pid_t Spawn(std::vector<std::string> const& args, std::vector<std::string> const& env,
            std::string const& in, std::string const& out, std::string const& err) {
  // Everything the child needs is built before fork: after it, only
  // async-signal-safe calls.
  std::vector<char*> argv, envp;
  for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  // The runner's own init system must not hear from our daemons.
  auto dropped = [&](char const* entry) {
    for (char const* name : {"NOTIFY_SOCKET=", "WATCHDOG_USEC=", "WATCHDOG_PID="})
      if (std::strncmp(entry, name, std::strlen(name)) == 0) return true;
    for (auto const& e : env)
      if (std::strncmp(entry, e.c_str(), e.find('=') + 1) == 0) return true;
    return false;
  };
  for (char** e = environ; *e != nullptr; ++e)
    if (!dropped(*e)) envp.push_back(*e);
  for (auto const& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    ExecChild(argv, envp, in.c_str(), out.c_str(), out == err ? out.c_str() : err.c_str());
  }
  return pid;
}

int DecodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return -WTERMSIG(status);
  return -1000;
}

}  // namespace

bool PollUntil(std::function<bool()> const& cond, int timeoutMs, int stepMs) {
  auto const deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    if (cond()) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(stepMs));
  }
}

std::vector<std::uint16_t> FreePorts(std::size_t n) {
  // All sockets stay bound until every port is known, so none comes twice.
  std::vector<int> fds;
  std::vector<std::uint16_t> ports;
  for (std::size_t i = 0; i < n; ++i) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0) {
      ports.push_back(ntohs(sa.sin_port));
    }
    if (fd >= 0) fds.push_back(fd);
  }
  for (int fd : fds) close(fd);
  return ports;
}

bool Accepts(std::string const& accessPoint) {
  kest::cAccessPoint ap;
  std::string error;
  if (!kest::cAccessPoint::Parse(accessPoint, ap, error)) return false;
  sockaddr_storage sa{};
  unsigned len = ap.ToSockaddr(sa);
  int fd = socket(ap.kind == kest::cAccessPoint::kUnix ? AF_UNIX : AF_INET,
                  SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&sa), len) == 0;
  close(fd);
  return ok;
}

std::string ReadFile(std::string const& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

std::vector<std::string> SplitLines(std::string const& text) {
  std::vector<std::string> lines;
  std::stringstream ss(text);
  std::string line;
  while (std::getline(ss, line)) lines.push_back(line);
  return lines;
}

cTempDir::cTempDir() {
  char const* base = getenv("TMPDIR");
  std::string tmpl =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/rm-e2e-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) != nullptr) m_path = buf.data();
}

cTempDir::~cTempDir() {
  if (m_path.empty()) return;
  std::string cmd = "rm -rf '" + m_path + "'";
  if (system(cmd.c_str()) != 0) {
    // Leaving a temporary directory behind is not worth failing a test for.
  }
}

cProcess::cProcess(std::string name, std::vector<std::string> argv, std::string logPath)
    : m_name(std::move(name)), m_argv(std::move(argv)), m_log(std::move(logPath)) {}

cProcess::~cProcess() { Stop(); }

bool cProcess::Start() {
  if (m_pid > 0) return false;
  m_status = -1000;
  m_pid = Spawn(m_argv, m_env, "/dev/null", m_log, m_log);
  return m_pid > 0;
}

bool cProcess::Reap(bool block) {
  if (m_pid <= 0) return true;
  int status = 0;
  pid_t r;
  do {
    r = waitpid(m_pid, &status, block ? 0 : WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == 0) return false;
  m_status = r == m_pid ? DecodeStatus(status) : -1000;
  m_pid = -1;
  return true;
}

bool cProcess::Running() { return m_pid > 0 && !Reap(false); }

void cProcess::Signal(int sig) const {
  if (m_pid > 0) kill(m_pid, sig);
}

bool cProcess::WaitExit(int timeoutMs) {
  return PollUntil([this] { return !Running(); }, timeoutMs, 10);
}

int cProcess::Stop(int timeoutMs) {
  if (m_pid <= 0) return m_status;
  Signal(SIGTERM);
  if (!WaitExit(timeoutMs)) {
    Signal(SIGKILL);
    Reap(true);
  }
  return m_status;
}

int cProcess::CountInLog(std::string const& text) const {
  std::string log = Log();
  int n = 0;
  for (std::size_t pos = log.find(text); pos != std::string::npos; pos = log.find(text, pos + 1))
    ++n;
  return n;
}

bool cProcess::WaitForLog(std::string const& text, int timeoutMs, int occurrences) const {
  return PollUntil([&] { return CountInLog(text) >= occurrences; }, timeoutMs);
}

cToolRun RunTool(std::vector<std::string> const& argv, std::string const& filesBase,
                 std::string const& input, int timeoutMs) {
  cToolRun run;
  std::string const in = filesBase + ".in", out = filesBase + ".out", err = filesBase + ".err";
  {
    std::ofstream f(in, std::ios::binary | std::ios::trunc);
    f << input;
  }
  unlink(out.c_str());
  unlink(err.c_str());
  pid_t pid = Spawn(argv, {}, in, out, err);
  if (pid < 0) return run;
  int status = 0;
  bool done = PollUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeoutMs, 5);
  if (!done) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  run.status = DecodeStatus(status);
  run.out = ReadFile(out);
  run.err = ReadFile(err);
  return run;
}

}  // namespace e2e

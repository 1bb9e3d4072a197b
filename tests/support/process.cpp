#include "support/process.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

namespace testsupport {

void cProcess::Start(std::vector<std::string> args, std::string log, std::vector<std::string> env) {
  Stop();
  m_log = std::move(log);
  m_status = kNotEnded;
  // Everything the child needs is built before fork: after it, only
  // async-signal-safe calls. The runner's own init system must not hear
  // from our daemons, so its variables are not passed on.
  std::vector<char*> argv, envp;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  for (char** e = environ; *e != nullptr; ++e)
    if (std::strncmp(*e, "NOTIFY_SOCKET=", 14) != 0 && std::strncmp(*e, "WATCHDOG_", 9) != 0)
      envp.push_back(*e);
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  m_pid = fork();
  if (m_pid == 0) {
    setpgid(0, 0);  // a Ctrl-C at the terminal is for the test runner, not its children
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    int in = open("/dev/null", O_RDONLY);
    int out = open(m_log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) _exit(126);
    execvpe(argv[0], argv.data(), envp.data());
    _exit(127);
  }
}

bool cProcess::Running() {
  if (m_pid <= 0) return false;
  int status = 0;
  pid_t const r = waitpid(m_pid, &status, WNOHANG);
  if (r == 0) return true;
  m_status = r != m_pid ? kNotEnded : WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  m_pid = -1;
  return false;
}

std::string Shell(std::string const& command) {
  std::string out;
  if (FILE* p = popen((command + " 2>&1").c_str(), "r")) {
    char buf[512];
    for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    pclose(p);
  }
  return out;
}

}  // namespace testsupport

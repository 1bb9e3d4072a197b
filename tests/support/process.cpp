#include "support/process.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>

namespace testsupport {

void NoteMachine(std::string const& path) {
  static std::set<std::string> noted;
  unsigned char h[40] = {};
  FILE* f = noted.insert(path).second ? std::fopen(path.c_str(), "rb") : nullptr;
  if (f == nullptr) return;  // noted before, or a name looked up in PATH
  bool const elf = std::fread(h, 1, sizeof h, f) == sizeof h && std::memcmp(h + 1, "ELF", 3) == 0;
  std::fclose(f);
  if (!elf || h[0] != 0x7f || h[5] != 1) return;  // a script, or big-endian
  unsigned const machine = h[18] | h[19] << 8;
  std::uint32_t const flags = h[36] | h[37] << 8 | h[38] << 16 | std::uint32_t{h[39]} << 24;
  std::string const what = machine == 62   ? "x86-64"
                           : machine != 40 ? "machine " + std::to_string(machine)
                                           : "ARM EABI" + std::to_string(flags >> 24) +
                                                 (flags & 0x200   ? " soft-float"
                                                  : flags & 0x400 ? " hard-float"
                                                                  : "");
  std::printf("program started: %s: ELF %s-bit %s\n", path.c_str(), h[4] == 1 ? "32" : "64",
              what.c_str());
}

void cProcess::Start(std::vector<std::string> args, std::string log, std::vector<std::string> env) {
  Stop();
  for (auto const& a : args) NoteMachine(a);
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
  int status = 0;
  if (m_pid <= 0) return false;
  pid_t const r = waitpid(m_pid, &status, WNOHANG);
  if (r == 0) return true;
  if (r == m_pid) m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  m_pid = -1;
  return false;
}

// Under user-mode emulation of the target (the cross toolchain's emulator
// line sets ROUTEMGR_EMULATED) this test is an ARM program in qemu-arm,
// which cannot exec another ARM program by itself: the kernel has to hand
// ARM executables to qemu-arm through an enabled binfmt_misc entry whose
// magic is "7f454c46 01 ..." with e_machine 40 (0x0028) at bytes 18-19.
std::string CannotStartPrograms() {
  if (std::getenv("ROUTEMGR_EMULATED") == nullptr) return "";
  std::error_code ec;
  for (auto const& entry : std::filesystem::directory_iterator("/proc/sys/fs/binfmt_misc/", ec)) {
    std::string const text = ReadFile(entry.path());
    std::size_t const magic = text.find("\nmagic ");
    if (text.rfind("enabled\n", 0) == 0 && magic != std::string::npos &&
        text.compare(magic + 7, 10, "7f454c4601") == 0 && text.compare(magic + 43, 4, "2800") == 0)
      return "";
  }
  return "starts another ARM program, which user-mode qemu cannot exec by itself: needs "
         "binfmt_misc to hand ARM executables to qemu-arm (scripts/ci-armel.sh registers it as "
         "root)";
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

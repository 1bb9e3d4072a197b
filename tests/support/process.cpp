#include "support/process.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <set>

namespace testsupport {

namespace {

// "ELF 32-bit ARM EABI5 soft-float" for an executable, "" for anything
// else (a script, a name looked up in PATH).
std::string ElfMachine(std::string const& path) {
  unsigned char h[40] = {};
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return "";
  std::size_t const n = std::fread(h, 1, sizeof h, f);
  std::fclose(f);
  if (n < sizeof h ||
      std::memcmp(h,
                  "\x7f"
                  "ELF",
                  4) != 0 ||
      h[5] != 1)
    return "";
  unsigned const machine = h[18] | h[19] << 8;
  std::string text = std::string("ELF ") + (h[4] == 1 ? "32" : "64") + "-bit ";
  if (machine == 62) return text + "x86-64";
  if (machine != 40) return text + "machine " + std::to_string(machine);
  std::uint32_t const flags = h[36] | h[37] << 8 | h[38] << 16 | std::uint32_t{h[39]} << 24;
  return text + "ARM EABI" + std::to_string(flags >> 24) +
         (flags & 0x200   ? " soft-float"
          : flags & 0x400 ? " hard-float"
                          : "");
}

}  // namespace

void NoteMachine(std::string const& path) {
  static std::set<std::string> noted;
  if (!noted.insert(path).second) return;
  std::string const machine = ElfMachine(path);
  if (!machine.empty()) std::printf("program started: %s: %s\n", path.c_str(), machine.c_str());
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
  if (m_pid <= 0) return false;
  int status = 0;
  pid_t const r = waitpid(m_pid, &status, WNOHANG);
  if (r == 0) return true;
  m_status = r != m_pid ? kNotEnded : WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  m_pid = -1;
  return false;
}

std::string CannotStartPrograms() {
  if (!Emulated()) return "";
  // An enabled entry whose magic is that of a 32-bit little-endian ARM
  // executable: "7f454c46 01 01 ..." with e_machine 40 (0x0028) at bytes 18-19.
  std::string const dir = "/proc/sys/fs/binfmt_misc/";
  if (ReadFile(dir + "status") == "enabled\n") {
    std::error_code ec;
    for (auto const& entry : std::filesystem::directory_iterator(dir, ec)) {
      std::string const text = ReadFile(entry.path());
      std::size_t const magic = text.find("\nmagic ");
      if (text.rfind("enabled\n", 0) == 0 && text.find("\noffset 0\n") != std::string::npos &&
          magic != std::string::npos && text.compare(magic + 7, 10, "7f454c4601") == 0 &&
          text.compare(magic + 7 + 36, 4, "2800") == 0)
        return "";
    }
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

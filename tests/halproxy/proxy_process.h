// Runs halproxy as a child process listening on a Unix socket in a private
// directory, and a HAL client connected to it. Everything is torn down by
// the destructors, also when a test fails half way.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "hal/hal_client.h"
#include "kest/service.h"

namespace halproxy_test {

inline bool PumpUntil(std::function<bool()> done, int timeoutMs = 5000) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done() && std::chrono::steady_clock::now() < deadline) kest::Loop().RunOnce(10);
  return done();
}

class cProxyProcess {
 public:
  cProxyProcess() {
    char tmpl[] = "/tmp/halproxy-test-XXXXXX";
    if (mkdtemp(tmpl) != nullptr) m_dir = tmpl;
  }
  ~cProxyProcess() {
    Stop();
    unlink(SocketPath().c_str());
    unlink(LogPath().c_str());
    rmdir(m_dir.c_str());
  }
  cProxyProcess(const cProxyProcess&) = delete;
  cProxyProcess& operator=(const cProxyProcess&) = delete;

  std::string SocketPath() const { return m_dir + "/hal.sock"; }
  std::string AccessPoint() const { return "unix:" + SocketPath(); }
  std::string LogPath() const { return m_dir + "/halproxy.log"; }

  // Starts prefix... halproxy --listen LISTEN args... (LISTEN: our Unix
  // socket unless given) and waits until it says it listens; false (with its
  // log in error) if it died or stayed silent.
  bool Start(std::vector<std::string> const& args, std::string& error,
             std::vector<std::string> const& prefix = {}, std::string listen = "") {
    unlink(SocketPath().c_str());
    unlink(LogPath().c_str());  // a restart must not be taken for up by the last run's log
    std::vector<std::string> argv = prefix;
    argv.push_back(HALPROXY_PATH);
    argv.push_back("--listen");
    argv.push_back(listen.empty() ? AccessPoint() : listen);
    argv.insert(argv.end(), args.begin(), args.end());
    m_pid = Spawn(argv, LogPath());
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (Log().find("listening on") == std::string::npos) {
      int status = 0;
      if (waitpid(m_pid, &status, WNOHANG) == m_pid || std::chrono::steady_clock::now() > deadline) {
        if (kill(m_pid, 0) == 0) Stop();
        m_pid = -1;
        error = "halproxy did not come up: " + Log();
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
  }

  // SIGTERM and the exit status (-1 if it had to be killed).
  int Stop() {
    if (m_pid <= 0) return -1;
    kill(m_pid, SIGTERM);
    int status = 0;
    for (int i = 0; i < 300 && waitpid(m_pid, &status, WNOHANG) == 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (waitpid(m_pid, &status, WNOHANG) == 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, &status, 0);
      status = -1;
    }
    m_pid = -1;
    return status < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  bool Running() const { return m_pid > 0 && kill(m_pid, 0) == 0; }

  std::string Log() const {
    std::ifstream in(LogPath());
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  // Runs argv to its end with stdout and stderr in logPath; its exit status.
  static int Run(std::vector<std::string> const& argv, std::string const& logPath) {
    pid_t pid = Spawn(argv, logPath);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  static pid_t Spawn(std::vector<std::string> const& argv, std::string const& logPath) {
    std::vector<char*> args;
    for (auto const& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
      int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd >= 0) {
        dup2(fd, 1);
        dup2(fd, 2);
      }
      execvp(args[0], args.data());
      _exit(127);
    }
    return pid;
  }

  std::string m_dir;
  pid_t m_pid = -1;
};

class cNoCallbacks : public hal::IHalClient {};

// A started HAL client, connected once Connect() says so.
class cConnectedClient {
 public:
  explicit cConnectedClient(std::string const& accessPoint, unsigned timeoutMs = 3000)
      : client(&service, &callbacks, timeoutMs, accessPoint) {}
  bool Connect() {
    client.Start();
    return PumpUntil([this] { return client.IsConnected(); });
  }
  std::vector<std::string> Routes() {
    std::vector<std::string> lines;
    int rc = client.ListRoutes(lines);
    if (rc != 0) lines = {"ListRoutes failed: " + std::to_string(rc)};
    return lines;
  }

  kest::cService service;
  cNoCallbacks callbacks;
  hal::cHalClient client;
};

}  // namespace halproxy_test

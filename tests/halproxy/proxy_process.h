// halproxy as a child process in a private directory (its socket and log) and
// a HAL client for it; the destructor tears all down, also after a failure.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hal/hal_client.h"
#include "kest/service.h"

namespace halproxy_test {

using Lines = std::vector<std::string>;

template <typename F>
bool PumpUntil(F done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done() && std::chrono::steady_clock::now() < deadline) kest::Loop().RunOnce(10);
  return done();
}

class cProxyProcess {
 public:
  cProxyProcess() : m_dir(mkdtemp(m_tmpl)) {}
  ~cProxyProcess() {
    Stop();
    unlink(SocketPath().c_str());
    unlink(LogPath().c_str());
    rmdir(m_dir.c_str());
  }
  std::string SocketPath() const { return m_dir + "/hal.sock"; }
  std::string LogPath() const { return m_dir + "/halproxy.log"; }
  std::string const& AccessPoint() const { return m_ap; }
  std::string Log() const {
    std::stringstream s;
    s << std::ifstream(LogPath()).rdbuf();
    return s.str();
  }
  bool Logged(std::string const& text) const {
    return PumpUntil([&] { return Log().find(text) != std::string::npos; });
  }

  // prefix... halproxy --listen LISTEN (our socket unless given; TCP port 0: the
  // one it reports) args...; success once it listens, else its log.
  ::testing::AssertionResult Start(Lines const& args, Lines prefix = {}, std::string listen = "") {
    unlink(LogPath().c_str());  // an earlier run's "listening on" must not count
    m_ap = listen.empty() ? "unix:" + SocketPath() : listen;
    prefix.insert(prefix.end(), {HALPROXY_PATH, "--listen", m_ap});
    prefix.insert(prefix.end(), args.begin(), args.end());
    Spawn(prefix);
    // Port 0: the transport's own "listening on" line may come before the
    // one naming the port the system picked, so wait for that one.
    bool const pickedPort = m_ap.size() > 2 && m_ap.compare(m_ap.size() - 2, 2, ":0") == 0;
    if (!Logged(pickedPort ? "(port " : "listening on"))
      return ::testing::AssertionFailure() << "no start: " << Log();
    std::string log = Log();
    if (std::size_t at = log.find("(port "); at != std::string::npos)
      m_ap.replace(m_ap.size() - 1, 1, std::to_string(std::atoi(log.c_str() + at + 6)));
    return ::testing::AssertionSuccess();
  }
  // A HAL client for this run, connected once this says so.
  bool Connect() {
    m_client = std::make_unique<hal::cHalClient>(&m_service, nullptr, 3000, m_ap);
    m_client->Start();
    return PumpUntil([this] { return m_client->IsConnected(); });
  }
  hal::cHalClient& Hal() { return *m_client; }
  Lines Routes() {
    Lines lines;
    EXPECT_EQ(0, m_client->ListRoutes(lines));
    return lines;
  }
  // SIGTERM; the exit status (-1 if it had to be killed).
  int Stop() {
    m_client.reset();
    if (m_pid > 0) kill(m_pid, SIGTERM);
    int status = Wait();
    if (m_pid > 0) kill(m_pid, SIGKILL);
    return Wait() == -1 ? status : -1;
  }
  // Gone without a word, as after a crash; the client stays.
  void Kill() {
    if (m_pid > 0) kill(m_pid, SIGKILL);
    Wait();
  }
  // halproxy args... to its end, output to the log; its exit status.
  int Run(Lines args) {
    args.insert(args.begin(), HALPROXY_PATH);
    Spawn(args);
    return Wait();
  }

 private:
  void Spawn(Lines const& argv) {
    std::vector<char*> args;
    for (auto const& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    if ((m_pid = fork()) == 0) {
      int fd = open(LogPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(fd, 1);
      dup2(fd, 2);
      execvp(args[0], args.data());
      _exit(127);
    }
  }
  // Up to 3 s for the child to end: its exit status, -1 if none ended.
  int Wait() {
    int status = 0;
    for (int i = 0; m_pid > 0 && i < 300; ++i, usleep(10000)) {
      if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
    }
    return -1;
  }

  char m_tmpl[32] = "/tmp/halproxy-test-XXXXXX";
  std::string m_dir, m_ap;
  pid_t m_pid = -1;
  kest::cService m_service;
  std::unique_ptr<hal::cHalClient> m_client;
};

}  // namespace halproxy_test

// halproxy as a child process in a private directory (its socket and log) and
// a HAL client for it; the destructor tears all down, also after a failure.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "hal/hal_client.h"
#include "kest/service.h"
#include "support/process.h"

namespace halproxy_test {

using Lines = std::vector<std::string>;
using testsupport::PumpUntil;

class cProxyProcess {
 public:
  ~cProxyProcess() { Stop(); }
  std::string SocketPath() const { return m_dir.File("hal.sock"); }
  std::string const& AccessPoint() const { return m_ap; }
  std::string Log() const { return m_process.Log(); }
  // The loop turns meanwhile: the HAL client in this process may be what it waits for.
  bool Logged(std::string const& text) const {
    return PumpUntil([&] { return m_process.Logged(text); });
  }

  // prefix... halproxy --listen LISTEN (our socket unless given; TCP port 0: the
  // one it reports) args...; success once it listens, else its log.
  ::testing::AssertionResult Start(Lines const& args, Lines prefix = {}, std::string listen = "") {
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
  // SIGTERM (SIGKILL if it will not end); its exit status, -9 if it had to be killed.
  int Stop() {
    m_client.reset();
    return m_process.Stop();
  }
  // Gone without a word, as after a crash; the client stays.
  void Kill() { m_process.Kill(); }
  // halproxy args... to its end; its exit status.
  int Run(Lines args) {
    args.insert(args.begin(), HALPROXY_PATH);
    Spawn(args);
    m_process.WaitExit();
    return m_process.Stop();
  }

 private:
  void Spawn(Lines const& argv) {
    std::string const log = m_dir.File("halproxy.log");
    unlink(log.c_str());  // an earlier run's lines must not count
    m_process.Start(argv, log);
  }

  testsupport::cTempDir m_dir{"halproxy-test"};
  std::string m_ap;
  testsupport::cProcess m_process;
  kest::cService m_service;
  std::unique_ptr<hal::cHalClient> m_client;
};

}  // namespace halproxy_test

// halproxy as a child process in a private directory (its socket and log) and
// a HAL client for it; the destructor tears all down, also after a failure.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

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

  // halproxy --listen unix:OUR-SOCKET args...; success once it listens, else its log.
  ::testing::AssertionResult Start(Lines args) {
    m_ap = "unix:" + SocketPath();
    args.insert(args.begin(), {HALPROXY_PATH, "--listen", m_ap});
    Spawn(args);
    if (Logged("listening on")) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no start: " << Log();
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

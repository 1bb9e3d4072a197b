#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kest/loop.h"
#include "kest/service.h"

namespace {

// Records the framework's calls; once connected, runs the test's script.
class cProbeService : public kest::cScmService {
 public:
  std::vector<std::string> events;
  std::function<void()> script;
  kest::IClock* clock = nullptr;

  void InitMessageMap() override { events.push_back("map"); }
  bool OnScmConnected() override {
    events.push_back("connected");
    bool ok = kest::cScmService::OnScmConnected();
    if (script) script();
    return ok;
  }
  bool OnAliveCheck() override {
    events.push_back("alive@" + std::to_string(clock->NowMs()));
    return kest::cScmService::OnAliveCheck();
  }
};

// The init system's end of the notify socket.
class cNotifyListener {
 public:
  explicit cNotifyListener(bool abstract) {
    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string name = "/tmp/kest-notify-" + std::to_string(getpid());
    m_env = abstract ? "@" + name.substr(1) : name;
    std::memcpy(addr.sun_path, m_env.data(), m_env.size());
    if (abstract) addr.sun_path[0] = '\0';
    else unlink(name.c_str());
    m_path = abstract ? "" : name;
    socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_env.size());
    m_bound = bind(m_fd, reinterpret_cast<sockaddr*>(&addr), len) == 0;
  }
  ~cNotifyListener() {
    close(m_fd);
    if (!m_path.empty()) unlink(m_path.c_str());
  }
  bool Bound() const { return m_bound; }
  std::string const& Env() const { return m_env; }
  std::vector<std::string> Datagrams() {
    std::vector<std::string> out;
    char buf[512];
    ssize_t n;
    while ((n = recv(m_fd, buf, sizeof buf, MSG_DONTWAIT)) >= 0) out.emplace_back(buf, n);
    return out;
  }

 private:
  int m_fd = -1;
  bool m_bound = false;
  std::string m_env, m_path;
};

class ScmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (char const* v : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(v);
    kest::ResetLoop();
    kest::Loop().SetClock(&clock);
  }
  void TearDown() override {
    for (char const* v : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(v);
    kest::ResetLoop();
  }
  // Advances the manual clock in steps, each in its own loop round, then quits.
  void ScriptSteps(cProbeService& service, int steps, std::uint64_t stepMs) {
    service.clock = &clock;
    m_left = steps;
    m_step = [this, stepMs] {
      if (m_left-- == 0) return kest::Loop().Quit();
      clock.Advance(stepMs);
      // A zero-delay timer queues behind any timer that just became due.
      kest::Loop().AddTimer(0, m_step);
    };
    service.script = [this] { kest::Loop().AddTimer(0, m_step); };
  }
  kest::cManualClock clock;
  int m_left = 0;
  std::function<void()> m_step;
};

TEST_F(ScmTest, ReportsReadyAndPingsTheWatchdogAtHalfItsPeriod) {
  for (bool abstract : {false, true}) {
    cNotifyListener init(abstract);
    ASSERT_TRUE(init.Bound());
    setenv("NOTIFY_SOCKET", init.Env().c_str(), 1);
    setenv("WATCHDOG_USEC", "2000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    cProbeService service;
    service.Init("probe", 3704);
    std::uint64_t start = clock.NowMs();
    ScriptSteps(service, 10, 250);
    service.ProcessMessages();
    EXPECT_EQ(service.events,
              (std::vector<std::string>{"map", "connected", "alive@" + std::to_string(start + 1000),
                                        "alive@" + std::to_string(start + 2000)}))
        << (abstract ? "abstract" : "path");
    EXPECT_EQ(init.Datagrams(), (std::vector<std::string>{"READY=1\nSTATUS=probe running",
                                                          "WATCHDOG=1", "WATCHDOG=1",
                                                          "STOPPING=1"}));
  }
}

TEST_F(ScmTest, WatchdogMeantForAnotherProcessIsLeftAlone) {
  cNotifyListener init(false);
  setenv("NOTIFY_SOCKET", init.Env().c_str(), 1);
  setenv("WATCHDOG_USEC", "2000000", 1);
  setenv("WATCHDOG_PID", "1", 1);
  cProbeService service;
  service.Init("probe", 3704);
  ScriptSteps(service, 10, 250);
  service.ProcessMessages();
  EXPECT_EQ(service.events, (std::vector<std::string>{"map", "connected"}));
  EXPECT_EQ(init.Datagrams().size(), 2u);  // READY, STOPPING
}

TEST_F(ScmTest, StandaloneServiceConnectsFirstAndStopsOnSignals) {
  for (int sig : {SIGTERM, SIGINT}) {
    cProbeService service;
    ASSERT_TRUE(service.Init("probe", 3704));
    EXPECT_FALSE(service.ScmAttached());
    service.script = [sig] { raise(sig); };
    kest::Loop().Post([&service] { service.events.push_back("posted before the loop"); });
    service.ProcessMessages();  // returns only through the signal
    EXPECT_EQ(service.events,
              (std::vector<std::string>{"map", "connected", "posted before the loop"}));
    kest::ResetLoop();
    kest::Loop().SetClock(&clock);
  }
}

}  // namespace

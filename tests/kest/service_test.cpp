#include "kest/service.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "kest/timer.h"
#include "test_support.h"

namespace {

using Strings = std::vector<std::string>;
Strings g_log;  // what every probe handled, in order

kest::cChannel* Chan(int n) {
  static int anchors[2];
  return reinterpret_cast<kest::cChannel*>(&anchors[n]);
}

class cProbe : public kest::cScmService {
 public:
  explicit cProbe(std::string tag = "") : m_tag(std::move(tag)) {}

  void InitMessageMap() override {
    using H = kest::MsgHandler;
    MessageMap().AddEntry("A", static_cast<H>(&cProbe::OnA), nullptr);
    MessageMap().AddEntry("B", static_cast<H>(&cProbe::OnBFromOne), Chan(1));
    MessageMap().AddEntry("B", static_cast<H>(&cProbe::OnBAny), nullptr);
    MessageMap().AddEntry("A", static_cast<H>(&cProbe::OnBAny), nullptr);  // shadowed
  }
  void OnMsgIgnore(kest::cMsg& m) override {
    Log("ignore " + m.Name());
    kest::cScmService::OnMsgIgnore(m);
  }
  void PreDispatchMessage(kest::cMsg& m) override { Log("pre " + m.Name()); }
  bool OnScmConnected() override {
    Log("connected");
    return kest::cScmService::OnScmConnected();
  }
  void OnA(kest::cMsg&) { Log("A"); }
  void OnBFromOne(kest::cMsg&) { Log("B/1"); }
  void OnBAny(kest::cMsg&) { Log("B/any"); }
  void Log(std::string const& s) { g_log.push_back(m_tag + s); }
  std::string m_tag;
};

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (char const* v : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(v);
    kest::ResetLoop();
    kest::Loop().SetClock(&clock);
    g_log.clear();
  }
  void TearDown() override { SetUp(); }
  void Advance(std::uint64_t ms) {
    g_log.clear();
    clock.Advance(ms);
    kest::Loop().RunUntilIdle();
  }
  kest::cManualClock clock;
  kest::cTraceCapture traces;
};

TEST_F(ServiceTest, DispatchPicksTheFirstMatchingEntryAndPostsRunInOrder) {
  struct Case {
    char const* name;
    int channel;
    char const* handled;
  };
  Case const cases[] = {
      {"A", 0, "A"}, {"B", 1, "B/1"}, {"B", 0, "B/any"}, {"B", -1, "B/any"}, {"C", 1, "ignore C"}};
  cProbe sink;
  sink.Init("probe", 1);
  for (auto const& c : cases) {
    g_log.clear();
    kest::cMsg msg(c.name, c.channel < 0 ? nullptr : Chan(c.channel));
    sink.ProcessMsg(msg);
    EXPECT_EQ(g_log, (Strings{std::string("pre ") + c.name, c.handled})) << c.name << c.channel;
  }
  EXPECT_EQ(traces.Messages().back(), "probe: ignored message C");

  // Posted messages run in order from the loop, and never at a sink that is gone.
  g_log.clear();
  auto doomed = std::make_unique<cProbe>("doomed ");
  kest::cMessageSink* doomedPtr = doomed.get();
  sink.Post(kest::cMsg("B"));
  kest::cMessageSink::PostTo(doomedPtr, kest::cMsg("A"));
  kest::Loop().Post([] { g_log.push_back("fn"); });
  sink.Post(kest::cMsg("A"));
  doomed.reset();
  EXPECT_FALSE(kest::cMessageSink::Alive(doomedPtr));
  kest::cMessageSink::PostTo(nullptr, kest::cMsg("A"));
  EXPECT_TRUE(g_log.empty());
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(g_log, (Strings{"pre B", "B/any", "fn", "pre A", "A"}));
}

TEST_F(ServiceTest, TimersFollowTheManualClock) {
  // Period 100 ms; each step acts ('r'estart, 's'top, 'd'estroy), advances, counts deliveries.
  struct Step {
    char action;
    std::uint64_t ms;
    long ticks;
  };
  struct Case {
    char const* name;
    bool repeat;
    std::vector<Step> steps;
  };
  Case const cases[] = {
      {"one-shot", false, {{'-', 99, 0}, {'-', 1, 1}, {'-', 1000, 0}}},
      // Late delivery (at 103) must not shift the next periods: due at 200, 300.
      {"repeat without drift", true, {{'-', 103, 1}, {'-', 96, 0}, {'-', 1, 1}, {'-', 100, 1}}},
      {"restart resets the period", true, {{'-', 60, 0}, {'r', 60, 0}, {'-', 39, 0}, {'-', 1, 1}}},
      {"stop and start again", true, {{'-', 100, 1}, {'s', 1000, 0}, {'r', 100, 1}}},
      {"destroyed", true, {{'d', 1000, 0}}},
  };
  cProbe service;
  for (auto const& c : cases) {
    auto timer = std::make_unique<kest::cTimer>(&service, c.repeat, nullptr);
    ASSERT_TRUE(timer->StartMs(100, "A"));
    for (Step const& s : c.steps) {
      if (s.action == 'r') timer->StartMs(100, "A");
      if (s.action == 's') timer->Stop();
      if (s.action == 'd') timer.reset();
      Advance(s.ms);
      EXPECT_EQ(std::count(g_log.begin(), g_log.end(), "A"), s.ticks) << c.name << " " << s.ms;
    }
  }
  // Without a sink a timer delivers to its service; due order holds across sinks.
  cProbe other("other ");
  kest::cTimer toService(&service, false, nullptr), toOther(&service, false, &other);
  toService.StartSec(5, "A");
  toOther.StartSec(4, "A");
  Advance(5000);
  EXPECT_EQ(g_log, (Strings{"other pre A", "other A", "pre A", "A"}));
  EXPECT_FALSE(toService.Running());
}

TEST_F(ServiceTest, ReportsReadyAndPingsTheWatchdogAtHalfItsPeriod) {
  std::string const path = "/tmp/kest-notify-" + std::to_string(getpid());
  // A path or an abstract name; WATCHDOG_PID names this process or another.
  std::pair<std::string, bool> const cases[] = {{"@" + path.substr(1), true}, {path, false}};
  for (auto const& [env, ours] : cases) {
    SetUp();
    kesttest::RawEnd init(socket(AF_UNIX, SOCK_DGRAM, 0));  // the init system's end
    sockaddr_un addr{AF_UNIX, {}};
    std::memcpy(addr.sun_path, env.data(), env.size());
    addr.sun_path[0] = env[0] == '@' ? '\0' : '/';
    unlink(path.c_str());
    ASSERT_EQ(bind(init.fd, reinterpret_cast<sockaddr*>(&addr),
                   socklen_t(offsetof(sockaddr_un, sun_path) + env.size())),
              0);
    setenv("NOTIFY_SOCKET", env.c_str(), 1);
    setenv("WATCHDOG_USEC", "2000000", 1);
    setenv("WATCHDOG_PID", ours ? std::to_string(getpid()).c_str() : "1", 1);
    cProbe service;
    service.Init("probe", 3704);
    auto received = [&](std::string const& when) {
      char buf[512];
      for (ssize_t n; (n = recv(init.fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
        g_log.push_back(when + " " + std::string(buf, std::size_t(n)));
    };
    // Ten 250 ms steps, each in a loop round of its own, noting what arrived when.
    std::uint64_t const start = clock.NowMs();
    int steps = 10;
    std::function<void()> step = [&] {
      received(std::to_string(clock.NowMs() - start));
      if (steps-- == 0) return kest::Loop().Quit();
      clock.Advance(250);
      kest::Loop().AddTimer(0, step);  // queues behind any timer that just became due
    };
    kest::Loop().AddTimer(0, step);
    service.ProcessMessages();
    received("end");
    Strings want = {"connected", "0 READY=1\nSTATUS=probe running"};
    if (ours) want.insert(want.end(), {"1000 WATCHDOG=1", "2000 WATCHDOG=1"});
    want.push_back("end STOPPING=1");
    EXPECT_EQ(g_log, want) << env;
  }
  unlink(path.c_str());
}

// SIGTERM is how every program is stopped in the end-to-end tests.
TEST_F(ServiceTest, StandaloneServiceConnectsFirstAndStopsOnSigint) {
  cProbe service;
  ASSERT_TRUE(service.Init("probe", 3704));
  kest::Loop().Post([] {
    g_log.push_back("posted before the loop");
    raise(SIGINT);
  });
  service.ProcessMessages();  // returns only through the signal
  EXPECT_EQ(g_log, (Strings{"connected", "posted before the loop"}));
}

}  // namespace

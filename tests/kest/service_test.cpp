#include "kest/service.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <tuple>

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
  // The message, the channel it comes from (-1: none), the handler that takes it.
  std::tuple<char const*, int, char const*> const cases[] = {
      {"A", 0, "A"}, {"B", 1, "B/1"}, {"B", -1, "B/any"}, {"C", 1, "ignore C"}};
  cProbe sink;
  sink.Init("probe", 1);
  for (auto const& [name, channel, handled] : cases) {
    g_log.clear();
    kest::cMsg msg(name, channel < 0 ? nullptr : Chan(channel));
    sink.ProcessMsg(msg);
    EXPECT_EQ(g_log, (Strings{std::string("pre ") + name, handled})) << name << channel;
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
  EXPECT_TRUE(g_log.empty());
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(g_log, (Strings{"pre B", "B/any", "fn", "pre A", "A"}));
}

TEST_F(ServiceTest, TimersFollowTheManualClock) {
  // Period 100 ms. Each step: an action ('r'estart, 's'top, 'd'estroy, '-' none), the
  // milliseconds the clock then advances, the deliveries that brings.
  using Steps = std::vector<std::tuple<char, std::uint64_t, long>>;
  std::tuple<char const*, bool, Steps> const cases[] = {
      {"one-shot", false, {{'-', 99, 0}, {'-', 1, 1}, {'-', 1000, 0}}},
      // Late delivery (at 103) must not shift the next periods: due at 200, 300.
      {"repeat without drift", true, {{'-', 103, 1}, {'-', 96, 0}, {'-', 1, 1}, {'-', 100, 1}}},
      {"restart resets the period", true, {{'-', 60, 0}, {'r', 60, 0}, {'-', 39, 0}, {'-', 1, 1}}},
      {"stopped", true, {{'s', 1000, 0}}},
      {"destroyed", true, {{'d', 1000, 0}}},
  };
  cProbe service;
  for (auto const& [name, repeat, steps] : cases) {
    auto timer = std::make_unique<kest::cTimer>(&service, repeat, nullptr);
    ASSERT_TRUE(timer->StartMs(100, "A"));
    for (auto const& [action, ms, ticks] : steps) {
      if (action == 'r') timer->StartMs(100, "A");
      if (action == 's') timer->Stop();
      if (action == 'd') timer.reset();
      Advance(ms);
      EXPECT_EQ(std::count(g_log.begin(), g_log.end(), "A"), ticks) << name << " " << ms;
    }
  }
}

// An abstract name (the path form differs in one byte); WATCHDOG_PID names this process.
TEST_F(ServiceTest, ReportsReadyAndPingsTheWatchdogAtHalfItsPeriod) {
  std::string const name = "@kest-notify-" + std::to_string(getpid());
  kesttest::RawEnd init(socket(AF_UNIX, SOCK_DGRAM, 0));  // the init system's end
  sockaddr_un addr{AF_UNIX, {}};
  name.copy(addr.sun_path + 1, name.size() - 1, 1);
  ASSERT_EQ(bind(init.fd, reinterpret_cast<sockaddr*>(&addr),
                 socklen_t(offsetof(sockaddr_un, sun_path) + name.size())),
            0);
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  setenv("WATCHDOG_USEC", "2000000", 1);
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
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
  EXPECT_EQ(g_log, (Strings{"0 READY=1\nSTATUS=probe running", "1000 WATCHDOG=1", "2000 WATCHDOG=1",
                            "end STOPPING=1"}));
}

}  // namespace

#include "kest/timer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kest/loop.h"
#include "kest/service.h"

namespace {

class cLogService : public kest::cService {
 public:
  std::vector<std::string>* log = nullptr;
  std::string tag;
  void InitMessageMap() override {
    MessageMap().AddEntry("TICK", static_cast<kest::MsgHandler>(&cLogService::OnTick), nullptr);
  }
  void OnTick(kest::cMsg& msg) { log->push_back(tag + ":" + msg.Name()); }
};

class TimerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kest::ResetLoop();
    kest::Loop().SetClock(&clock);
    service.log = other.log = &log;
    service.tag = "service";
    other.tag = "other";
  }
  void TearDown() override { kest::ResetLoop(); }
  // Advances the manual clock and returns how many ticks were delivered.
  std::size_t AdvanceAndCount(std::uint64_t ms) {
    log.clear();
    clock.Advance(ms);
    kest::Loop().RunUntilIdle();
    return log.size();
  }
  kest::cManualClock clock;
  std::vector<std::string> log;
  cLogService service;
  cLogService other;
};

struct Step {
  char const* action;  // "advance", "restart", "stop"
  std::uint64_t ms;
  std::size_t ticks;  // delivered by this step
};

struct TimerCase {
  char const* name;
  bool repeat;
  std::vector<Step> steps;
};

class TimerTable : public TimerTest, public ::testing::WithParamInterface<TimerCase> {};

TEST_P(TimerTable, DeliversOnSchedule) {
  TimerCase const& c = GetParam();
  kest::cTimer timer(&service, c.repeat, nullptr);
  ASSERT_TRUE(timer.StartMs(100, "TICK"));
  for (std::size_t i = 0; i < c.steps.size(); ++i) {
    std::string action = c.steps[i].action;
    if (action == "restart") {
      ASSERT_TRUE(timer.StartMs(100, "TICK"));
    }
    if (action == "stop") timer.Stop();
    EXPECT_EQ(AdvanceAndCount(c.steps[i].ms), c.steps[i].ticks) << "step " << i << " " << action;
  }
}

// Period 100 ms throughout.
const TimerCase kTimerCases[] = {
    {"OneShot", false, {{"advance", 99, 0}, {"advance", 1, 1}, {"advance", 1000, 0}}},
    // Late delivery (at 103) must not shift the next periods: due at 200, 300.
    {"RepeatNoDrift", true, {{"advance", 103, 1}, {"advance", 96, 0}, {"advance", 1, 1}, {"advance", 100, 1}}},
    {"RestartResetsPeriod", true, {{"advance", 60, 0}, {"restart", 60, 0}, {"advance", 39, 0}, {"advance", 1, 1}}},
    {"Stop", true, {{"advance", 100, 1}, {"stop", 1000, 0}}},
    {"RestartAfterStop", false, {{"stop", 500, 0}, {"restart", 100, 1}}},
};

INSTANTIATE_TEST_SUITE_P(Kest, TimerTable, ::testing::ValuesIn(kTimerCases),
                         [](::testing::TestParamInfo<TimerCase> const& info) {
                           return std::string(info.param.name);
                         });

TEST_F(TimerTest, NullSinkDeliversToTheServiceElseToTheSink) {
  kest::cTimer toService(&service, false, nullptr);
  kest::cTimer toOther(&service, false, &other);
  toService.StartSec(5, "TICK");
  toOther.StartSec(5, "TICK");
  EXPECT_EQ(AdvanceAndCount(5000), 2u);
  EXPECT_EQ(log, (std::vector<std::string>{"service:TICK", "other:TICK"}));
  EXPECT_FALSE(toService.Running());
}

TEST_F(TimerTest, DestroyedTimerNeverFires) {
  {
    kest::cTimer timer(&service, true, nullptr);
    timer.StartMs(10, "TICK");
  }
  EXPECT_EQ(AdvanceAndCount(1000), 0u);
}

}  // namespace

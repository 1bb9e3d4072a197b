#include "kest/loop.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

class LoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kest::ResetLoop();
    kest::Loop().SetClock(&clock);
  }
  void TearDown() override { kest::ResetLoop(); }
  kest::cManualClock clock;
  std::vector<std::string> log;
};

TEST_F(LoopTest, PostedWorkRunsInFifoOrderAndLaterPostsAfterEarlierOnes) {
  auto& loop = kest::Loop();
  loop.Post([&] {
    log.push_back("a");
    loop.Post([&] { log.push_back("c"); });
  });
  loop.Post([&] { log.push_back("b"); });
  loop.RunUntilIdle();
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(LoopTest, TimersFireInDueOrderOnlyWhenTheManualClockHasPassedThem) {
  auto& loop = kest::Loop();
  loop.AddTimer(100, [&] { log.push_back("100"); });
  loop.AddTimer(50, [&] { log.push_back("50"); });
  auto cancelled = loop.AddTimer(70, [&] { log.push_back("70"); });
  loop.CancelTimer(cancelled);
  loop.CancelTimer(987654);  // unknown id: nothing happens

  struct Step { std::uint64_t advance; std::vector<std::string> expect; };
  std::vector<Step> steps = {{0, {}}, {49, {}}, {1, {"50"}}, {49, {"50"}}, {1000, {"50", "100"}}};
  for (auto const& s : steps) {
    clock.Advance(s.advance);
    loop.RunUntilIdle();  // must not wait for the pending timers
    EXPECT_EQ(log, s.expect) << "after advancing " << s.advance;
  }
}

TEST_F(LoopTest, UnwatchFromACallbackStopsThatAndOtherReadyDescriptors) {
  auto& loop = kest::Loop();
  int a[2], b[2];
  ASSERT_EQ(pipe(a), 0);
  ASSERT_EQ(pipe(b), 0);
  int calls = 0;
  auto cb = [&](std::uint32_t) {
    ++calls;
    loop.UnwatchFd(a[0]);
    loop.UnwatchFd(b[0]);
  };
  ASSERT_TRUE(loop.WatchFd(a[0], EPOLLIN, cb));
  ASSERT_TRUE(loop.WatchFd(b[0], EPOLLIN, cb));
  ASSERT_EQ(write(a[1], "x", 1), 1);
  ASSERT_EQ(write(b[1], "x", 1), 1);
  loop.RunUntilIdle();
  EXPECT_EQ(calls, 1);  // both ready in one round, the second was unwatched by the first
  for (int fd : {a[0], a[1], b[0], b[1]}) close(fd);
}

}  // namespace

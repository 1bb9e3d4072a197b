#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "kest/loop.h"
#include "kest/message.h"
#include "kest/server.h"
#include "kest/service_client.h"

namespace {

class RecordingSink : public kest::cMessageSink {
 public:
  std::vector<std::string> got;
  void ProcessMsg(kest::cMsg& msg) override { got.push_back(msg.Name()); }
};

// Reports itself to the watcher once connected, as the service does for its clients.
class WatchedClient : public kest::cServiceClient {
 public:
  WatchedClient(std::string ap, kest::cServiceClientWatcher* w)
      : cServiceClient(nullptr, 100, std::move(ap)), watcher(w) {}
  kest::cServiceClientWatcher* watcher;

 protected:
  void OnConnected() override { watcher->OnConnect(this); }
};

class WatcherTest : public ::testing::Test {
 protected:
  void SetUp() override { kest::ResetLoop(); }
  void TearDown() override { kest::ResetLoop(); }
  RecordingSink sink;
};

TEST_F(WatcherTest, PostsWhenAllAreUpAndAgainAfterALostOneReturns) {
  kest::cServiceClient a(nullptr, 100, "127.0.0.1:1"), b(nullptr, 100, "127.0.0.1:2"),
      stranger(nullptr, 100, "127.0.0.1:3");
  kest::cServiceClientWatcher watcher(&sink, "WATCHER::ALL-UP");
  ASSERT_TRUE(watcher.Add(&a));
  ASSERT_TRUE(watcher.Add(&b));
  EXPECT_FALSE(watcher.OnConnect(&stranger));

  struct Step {
    char const* what;
    kest::cServiceClient* client;
    bool lost;
    std::size_t posts;  // by this step
  };
  Step steps[] = {
      {"a up", &a, false, 0},       {"a up again", &a, false, 0}, {"b up", &b, false, 1},
      {"b up again", &b, false, 0}, {"a lost", &a, true, 0},      {"b up once more", &b, false, 0},
      {"a back", &a, false, 1},     {"a lost", &a, true, 0},      {"b lost", &b, true, 0},
      {"a back", &a, false, 0},     {"b back", &b, false, 1},
  };
  for (auto const& s : steps) {
    SCOPED_TRACE(s.what);
    sink.got.clear();
    if (s.lost) {
      watcher.OnDisconnect(s.client);
    } else {
      EXPECT_TRUE(watcher.OnConnect(s.client));
    }
    kest::Loop().RunUntilIdle();
    EXPECT_EQ(sink.got, std::vector<std::string>(s.posts, "WATCHER::ALL-UP"));
  }
}

TEST_F(WatcherTest, RealClientsReportTheirLostConnection) {
  kest::cManualClock clock;
  kest::Loop().SetClock(&clock);
  struct Handler : kest::IServerHandler {
    std::vector<kest::cChannel*> open;
    void OnOpen(kest::cChannel* c) override { open.push_back(c); }
    void OnFrame(kest::cChannel*, kest::cFrame&) override {}
    void OnClose(kest::cChannel*) override {}
  } handler;
  kest::cServer server(nullptr, &handler, "test");
  std::string error;
  ASSERT_TRUE(server.Listen("127.0.0.1:0", error)) << error;
  std::string ap = "127.0.0.1:" + std::to_string(server.BoundPort());

  kest::cServiceClientWatcher watcher(&sink, "WATCHER::ALL-UP");
  WatchedClient hal(ap, &watcher), data(ap, &watcher);
  watcher.Add(&hal);
  watcher.Add(&data);
  hal.Start();
  data.Start();
  auto pumpUntil = [](std::function<bool()> done) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (!done() && std::chrono::steady_clock::now() < deadline) kest::Loop().RunOnce(5);
  };
  pumpUntil([&] { return !sink.got.empty(); });
  EXPECT_EQ(sink.got.size(), 1u);

  handler.open.front()->Close("dropped by the test");
  pumpUntil([&] { return !hal.IsConnected() || !data.IsConnected(); });
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(sink.got.size(), 1u);
  clock.Advance(kest::cServiceClient::kBackoffFirstMs);
  pumpUntil([&] { return sink.got.size() == 2; });
  EXPECT_EQ(sink.got, (std::vector<std::string>{"WATCHER::ALL-UP", "WATCHER::ALL-UP"}));
}

}  // namespace

#include "kest/message.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kest/loop.h"
#include "kest/service.h"
#include "kest/trace.h"

namespace {

kest::cChannel* Chan(int n) {
  static int anchors[4];
  return reinterpret_cast<kest::cChannel*>(&anchors[n]);
}

class cProbeSink : public kest::cScmService {
 public:
  std::vector<std::string> log;
  int mapFills = 0;

  void InitMessageMap() override {
    ++mapFills;
    auto& m = MessageMap();
    m.AddEntry("A", static_cast<kest::MsgHandler>(&cProbeSink::OnA), nullptr);
    m.AddEntry("B", static_cast<kest::MsgHandler>(&cProbeSink::OnBFromOne), Chan(1));
    m.AddEntry("B", static_cast<kest::MsgHandler>(&cProbeSink::OnBAny), nullptr);
    m.AddEntry("A", static_cast<kest::MsgHandler>(&cProbeSink::OnBAny), nullptr);  // shadowed
  }
  void OnMsgIgnore(kest::cMsg& msg) override {
    log.push_back("ignore " + msg.Name());
    kest::cScmService::OnMsgIgnore(msg);
  }
  void PreDispatchMessage(kest::cMsg& msg) override { log.push_back("pre " + msg.Name()); }

  void OnA(kest::cMsg&) { log.push_back("A"); }
  void OnBFromOne(kest::cMsg&) { log.push_back("B/1"); }
  void OnBAny(kest::cMsg&) { log.push_back("B/any"); }
};

class MessageTest : public ::testing::Test {
 protected:
  void SetUp() override { kest::ResetLoop(); }
  void TearDown() override { kest::ResetLoop(); }
};

TEST_F(MessageTest, DispatchPicksTheFirstMatchingEntryAndIgnoresTheRest) {
  struct Case { std::string name; int channel; std::vector<std::string> expect; };
  std::vector<Case> cases = {
      {"A", 0, {"pre A", "A"}},
      {"A", 2, {"pre A", "A"}},
      {"B", 1, {"pre B", "B/1"}},
      {"B", 2, {"pre B", "B/any"}},
      {"B", -1, {"pre B", "B/any"}},
      {"C", 1, {"pre C", "ignore C"}},
  };
  cProbeSink sink;
  sink.Init("probe", 1);
  kest::cTraceCapture traces;
  for (auto const& c : cases) {
    sink.log.clear();
    kest::cMsg msg(c.name, c.channel < 0 ? nullptr : Chan(c.channel));
    sink.ProcessMsg(msg);
    EXPECT_EQ(sink.log, c.expect) << c.name << " on channel " << c.channel;
  }
  EXPECT_EQ(sink.mapFills, 1);
  ASSERT_EQ(traces.Records().size(), 1u);
  EXPECT_NE(traces.Messages()[0].find("C"), std::string::npos);
}

TEST_F(MessageTest, PostedMessagesArriveInOrderAndNeverAtADestroyedSink) {
  cProbeSink sink;
  auto doomed = std::make_unique<cProbeSink>();
  kest::cMessageSink* doomedPtr = doomed.get();
  for (char const* name : {"B", "A", "C"}) sink.Post(kest::cMsg(name));
  kest::cMessageSink::PostTo(doomedPtr, kest::cMsg("A"));
  EXPECT_TRUE(kest::cMessageSink::Alive(doomedPtr));
  doomed.reset();
  EXPECT_FALSE(kest::cMessageSink::Alive(doomedPtr));
  kest::cMessageSink::PostTo(nullptr, kest::cMsg("A"));
  EXPECT_TRUE(sink.log.empty());  // nothing runs before the loop does
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(sink.log,
            (std::vector<std::string>{"pre B", "B/any", "pre A", "A", "pre C", "ignore C"}));
}

}  // namespace

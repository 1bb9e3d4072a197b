#include "routectl/session.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "routeIO/route_errors.h"
#include "routectl/answer.h"
#include "routectl/command.h"

namespace {

using routeIO::routeResult;
namespace routeerr = routeIO::routeerr;

// Answers scripted per command, in order; records the traffic as lines.
class cFakeLink : public routectl::IRouteLink {
 public:
  std::int32_t Post(routeIO::routeCommand const& cmd) override {
    if (!connected) return routeerr::kNotConnected;
    log.push_back("post " + routectl::Verb(cmd) + " " + routectl::TagOf(cmd));
    ++posted;
    return 0;
  }
  routeResult Collect() override {
    log.push_back("collect");
    --posted;
    if (answers.empty()) return {true, 0};
    routeResult r = answers.front();
    answers.pop_front();
    if (r.rc == routeerr::kConnectionLost) connected = false;
    return r;
  }
  bool Connected() const override { return connected; }
  std::string LastError() const override { return connected ? "" : "closed by peer"; }

  std::deque<routeResult> answers;
  std::vector<std::string> log;
  int posted = 0;
  bool connected = true;
};

struct cRun {
  cFakeLink link;
  std::vector<std::string> out, err;
  routectl::cSession session;
  explicit cRun(bool json = false, bool strict = false)
      : session(
            link, json, strict, [this](std::string const& l) { out.push_back(l); },
            [this](std::string const& l) { err.push_back(l); }) {}
};

using Lines = std::vector<std::string>;

TEST(RoutectlSession, PipelinesAndAnswersInOrderOneLineEach) {
  cRun run;
  run.link.answers = {{true, 0}, {false, -101}, {false, -100}};
  EXPECT_TRUE(run.session.Line(1, "route set a 10.0.0.0/8 via 1.1.1.1"));
  EXPECT_TRUE(run.session.Line(2, "# nothing"));
  EXPECT_TRUE(run.session.Line(3, "route set b 10.1.0.0/16 via 1.1.1.1"));
  EXPECT_TRUE(run.session.Line(4, "route del c"));
  EXPECT_EQ(run.session.Outstanding(), 3u);
  run.session.Drain();
  EXPECT_EQ(run.link.log, (Lines{"post route set a", "post route set b", "post route del c",
                                 "collect", "collect", "collect"}));
  EXPECT_EQ(run.out, (Lines{"ok", "rc=-101 Network is unreachable", "rc=-100 unknown tag"}));
  EXPECT_TRUE(run.err.empty());
  EXPECT_EQ(run.session.ExitStatus(), 1);
}

TEST(RoutectlSession, MalformedLineIsReportedAndTheRestStillRuns) {
  cRun run;
  EXPECT_TRUE(run.session.Line(1, "route set a 10.0.0.0/8 via 1.1.1.1"));
  EXPECT_TRUE(run.session.Line(2, "route set b 10.0.0.0/8"));
  EXPECT_TRUE(run.session.Oversized(3));
  EXPECT_TRUE(run.session.Line(4, "gateway set wired 1.1.1.1"));
  run.session.Drain();
  EXPECT_EQ(run.out, (Lines{"ok", "ok"}));
  EXPECT_EQ(run.err,
            (Lines{"routectl: line 2: 'via GW' is missing", "routectl: line 3: line too long"}));
  EXPECT_EQ(run.session.ExitStatus(), 2);
}

TEST(RoutectlSession, StrictStopsAtTheFirstMalformedLineButAnswersWhatWasSent) {
  cRun run(false, true);
  EXPECT_TRUE(run.session.Line(1, "route set a 10.0.0.0/8 via 1.1.1.1"));
  EXPECT_FALSE(run.session.Line(2, "nonsense"));
  EXPECT_FALSE(run.session.Line(3, "route del a"));
  run.session.Drain();
  EXPECT_EQ(run.link.log, (Lines{"post route set a", "collect"}));
  EXPECT_EQ(run.out, (Lines{"ok"}));
  EXPECT_EQ(run.session.ExitStatus(), 2);
}

TEST(RoutectlSession, LostConnectionAnswersWhatWasSentAndStops) {
  cRun run;
  run.link.answers = {
      {true, 0}, {false, routeerr::kConnectionLost}, {false, routeerr::kConnectionLost}};
  run.session.Line(1, "route set a 10.0.0.0/8 via 1.1.1.1");
  run.session.Line(2, "route set b 10.0.0.0/8 via 1.1.1.1");
  run.session.Line(3, "route set c 10.0.0.0/8 via 1.1.1.1");
  run.session.Drain();
  EXPECT_FALSE(run.session.Line(4, "route set d 10.0.0.0/8 via 1.1.1.1"));
  EXPECT_EQ(run.out, (Lines{"ok", "rc=-2003 connection lost", "rc=-2003 connection lost"}));
  EXPECT_EQ(run.err, (Lines{"routectl: connection to the route manager lost (closed by peer) at "
                            "line 2; nothing more is sent"}));
  EXPECT_EQ(run.session.ExitStatus(), 1);
}

TEST(RoutectlSession, JsonLinesCarryLineNumbersAndSyntaxErrors) {
  cRun run(true);
  run.link.answers = {{true, 0}, {false, -19}};
  run.session.Line(1, "gateway set wired 1.1.1.1 type default");
  run.session.Line(2, "route frob");
  run.session.Line(3, "route set \"q\" 10.0.0.0/8 via 1.1.1.1");
  run.session.Send(0, routeIO::cDelGatewayCmd{"wired"});
  run.session.Drain();
  EXPECT_EQ(
      run.out,
      (Lines{
          R"j({"line":2,"ok":false,"syntax_error":"unknown route command 'frob' (set or del)"})j",
          R"j({"line":1,"command":"gateway set","tag":"wired","ok":true,"rc":0})j",
          R"j({"line":3,"command":"route set","tag":"\"q\"","ok":false,"rc":-19,"error":"No such device"})j",
          R"j({"command":"gateway del","tag":"wired","ok":true,"rc":0})j"}));
}

TEST(RoutectlAnswer, NamesEachKindOfCode) {
  routeIO::routeCommand set = routeIO::cSetRouteCmd{};
  routeIO::routeCommand del = routeIO::cDelRouteCmd{"x"};
  struct {
    routeIO::routeCommand const& cmd;
    routeResult result;
    char const* text;
  } const cases[] = {
      {set, {true, 0}, "ok"},
      {set, {false, -101}, "rc=-101 Network is unreachable"},
      {set, {false, -100}, "rc=-100 Network is down"},
      {del, {false, -100}, "rc=-100 unknown tag"},
      {set, {false, routeerr::kTimeout}, "rc=-2002 timeout"},
      {set, {false, -1001}, "rc=-1001 HAL proxy not connected"},
      {set, {false, 5}, "rc=5"},
      {set, {false, -70000}, "rc=-70000"},
  };
  for (auto const& c : cases) EXPECT_EQ(routectl::AnswerText(c.cmd, c.result), c.text);
}

TEST(RoutectlAnswer, JsonStringsStayValidForAnyBytes) {
  EXPECT_EQ(routectl::JsonString("a\"b\\c\n\x01"), R"("a\"b\\c\n\u0001")");
  EXPECT_EQ(routectl::JsonString("gr\xc3\xbc\xc3"), "\"gr\xc3\xbc\\u00c3\"");
  EXPECT_EQ(routectl::JsonString("\xed\xa0\x80"), R"("\u00ed\u00a0\u0080")");  // a surrogate
}

}  // namespace

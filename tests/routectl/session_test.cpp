#include "routectl/session.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <deque>

#include "routeIO/route_errors.h"
#include "routectl/answer.h"
#include "routectl/command.h"
#include "routectl/line_reader.h"

namespace {

using routeIO::routeResult;
using Lines = std::vector<std::string>;
namespace routeerr = routeIO::routeerr;

// A session over a link answering as scripted (then ok; kConnectionLost ends
// the connection). The traffic and what the session prints are kept as lines.
struct cRun : routectl::IRouteLink {
  explicit cRun(bool json = false, bool strict = false)
      : session(
            *this, json, strict, [this](std::string const& l) { out.push_back(l); },
            [this](std::string const& l) { err.push_back(l); }) {}
  std::int32_t Post(routeIO::routeCommand const& cmd) override {
    log.push_back("post " + routectl::Verb(cmd) + " " + routectl::TagOf(cmd));
    return 0;
  }
  routeResult Collect() override {
    log.push_back("collect");
    routeResult r = answers.empty() ? routeResult{true, 0} : answers.front();
    if (!answers.empty()) answers.pop_front();
    connected = connected && r.rc != routeerr::kConnectionLost;
    return r;
  }
  bool Connected() const override { return connected; }
  std::string LastError() const override { return "closed by peer"; }
  // Numbered lines while the session takes them, then its answers; how many it took.
  std::size_t Feed(Lines const& lines) {
    std::size_t n = 0;
    while (n < lines.size() && session.Line(next++, lines[n])) ++n;
    session.Drain();
    return n;
  }

  std::deque<routeResult> answers;
  Lines log, out, err;
  bool connected = true;
  unsigned next = 1;
  routectl::cSession session;
};

TEST(RoutectlSession, PipelinesAndAnswersInOrderOneLineEachUntilTheConnectionIsLost) {
  cRun run;
  run.answers = {{true, 0}, {false, -101}, {false, -100}};
  EXPECT_EQ(4u, run.Feed({"route set a 10.0.0.0/8 via 1.1.1.1", "# nothing",
                          "route set b 10.1.0.0/16 via 1.1.1.1", "route del c"}));
  EXPECT_EQ(run.log, (Lines{"post route set a", "post route set b", "post route del c", "collect",
                            "collect", "collect"}));
  EXPECT_EQ(run.out,
            (Lines{"ok", "line 3: rc=-101 Network is unreachable", "line 4: rc=-100 unknown tag"}));
  EXPECT_EQ(run.session.ExitStatus(), 1);  // a command failed
  cRun lost;                               // answers what was sent, then stops
  lost.answers = {{true, 0}, {false, routeerr::kConnectionLost}};
  lost.Feed({"route set a 10.0.0.0/8 via 1.1.1.1", "route set b 10.0.0.0/8 via 1.1.1.1"});
  EXPECT_EQ(0u, lost.Feed({"route set c 10.0.0.0/8 via 1.1.1.1"}));
  EXPECT_EQ(lost.out, (Lines{"ok", "line 2: rc=-2003 connection lost"}));
  EXPECT_EQ(lost.err, (Lines{"routectl: connection to the route manager lost (closed by peer) at "
                             "line 2; nothing more is sent"}));
  EXPECT_EQ(lost.session.ExitStatus(), 1);
}

TEST(RoutectlSession, MalformedLinesAreReportedAndTheRestStillRunsUnlessStrict) {
  cRun run;
  EXPECT_EQ(2u, run.Feed({"route set a 10.0.0.0/8 via 1.1.1.1", "route set b 10.0.0.0/8"}));
  EXPECT_TRUE(run.session.Oversized(run.next++));
  EXPECT_EQ(1u, run.Feed({"gateway set wired 1.1.1.1"}));
  EXPECT_EQ(run.out, (Lines{"ok", "ok"}));
  EXPECT_EQ(run.err,
            (Lines{"routectl: line 2: 'via GW' is missing", "routectl: line 3: line too long"}));
  EXPECT_EQ(run.session.ExitStatus(), 2);  // a line was malformed
  cRun strict(false, true);                // stops at the first, but answers what was sent
  EXPECT_EQ(1u, strict.Feed({"route set a 10.0.0.0/8 via 1.1.1.1", "nonsense", "route del a"}));
  EXPECT_EQ(strict.log, (Lines{"post route set a", "collect"}));
  EXPECT_EQ(strict.session.ExitStatus(), 2);
}

TEST(RoutectlAnswer, TextAndJsonNameEachKindOfCode) {
  EXPECT_EQ(routectl::AnswerText(routeIO::cSetRouteCmd{}, {false, routeerr::kTimeout}),
            "rc=-2002 timeout");
  EXPECT_EQ(routectl::AnswerText(routeIO::cSetRouteCmd{}, {false, -70000}), "rc=-70000");
  cRun run(true);
  run.answers = {{false, -19}};
  run.Feed({"route set \"q\" 10.0.0.0/8 via 1.1.1.1", "route frob"});
  run.session.Send(0, routeIO::cDelGatewayCmd{"wired"});  // from the command line
  run.session.Drain();
  EXPECT_EQ(
      run.out,
      (Lines{
          R"j({"line":1,"command":"route set","tag":"\"q\"","ok":false,"rc":-19,"error":"No such device"})j",
          R"j({"line":2,"ok":false,"syntax_error":"unknown route command 'frob' (set or del)"})j",
          R"j({"command":"gateway del","tag":"wired","ok":true,"rc":0})j"}));
  // Any tag gives valid JSON: escapes, and bytes that are not UTF-8 as \u00XX.
  EXPECT_EQ(routectl::JsonString("a\"b\\c\n\x01gr\xc3\xbc\xc3 \xed\xa0\x80"),
            R"("a\"b\\c\n\u0001grü\u00c3 \u00ed\u00a0\u0080")");
}

// Batch input: lines split, one longer than any command reported and skipped.
TEST(RoutectlLineReader, SplitsLinesAndSkipsOversizedOnes) {
  using R = routectl::cLineReader;
  std::string const input = "one\r\n" + std::string(R::kMaxLine + 1, 'x') + "\nlast";
  FILE* f = std::tmpfile();
  std::fputs(input.c_str(), f);
  std::rewind(f);
  R reader(fileno(f));
  std::string line, got;
  for (R::Result r; (r = reader.Next(line)) == R::kLine || r == R::kTooLong;)
    got += (r == R::kTooLong ? "<too long>" : line) + "|";
  std::fclose(f);
  EXPECT_EQ(got, "one\r|<too long>|last|");
}

}  // namespace

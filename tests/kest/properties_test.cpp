#include "kest/properties.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "kest/trace.h"

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

class PropertiesTest : public ::testing::Test {
 protected:
  void TearDown() override {
    unlink(path.c_str());
    kest::kestDeinit(true);
  }
  void Write(std::string const& text) { std::ofstream(path) << text; }
  void Init(std::vector<std::string> args) {  // the program name comes first
    args.insert(args.begin(), "prog");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    kest::kestInit(int(args.size()), argv.data(), "extra usage");
  }
  std::string path = "/tmp/kest-props-" + std::to_string(getpid());
};

TEST_F(PropertiesTest, OverridesWinOverTheFileInEitherSpelling) {
  Write("# comment\n\ns.a=file\ns.b=file\n  s.c = file = 3 \n");
  Init({"--prop", "s.a=cli", "--props", path, "--prop=s.b=cli=x", "--prop", "kest.trace=off"});
  auto& p = kest::kestProperties();
  EXPECT_EQ(p.GetStringForKey("s.a", "def"), "cli");
  EXPECT_EQ(p.GetStringForKey("s.b", "def"), "cli=x");
  EXPECT_EQ(p.GetStringForKey("s.c", "def"), "file = 3");
  EXPECT_EQ(p.GetStringForKey("s.none", "def"), "def");
  CaptureStderr();
  KEST_TRACE("M", "001", "hidden");
  EXPECT_EQ(GetCapturedStderr(), "");
}

using PropertiesDeathTest = PropertiesTest;

TEST_F(PropertiesDeathTest, BadCommandLinesExitTwoNamingTheProblem) {
  Write("good=1\nbad line\n");
  std::pair<std::vector<std::string>, char const*> const cases[] = {
      {{"--bogus"}, "unknown option '--bogus'"},
      {{"stray"}, "unknown option 'stray'"},
      {{"--props"}, "'--props' needs a value"},
      {{"--prop", "novalue"}, "KEY=VALUE, got 'novalue'"},
      {{"--props", path}, ":2: expected key=value"},
      {{"--prop", "kest.trace=printer"}, "unknown trace sink 'printer'"},
  };
  for (auto const& [args, message] : cases)
    EXPECT_EXIT(Init(args), ::testing::ExitedWithCode(2), message) << args[0];
}

TEST(Trace, OneLineOnStderrPerTraceAndNothingOnStdout) {
  EXPECT_EQ(kest::FormatString("<%s>", std::string(5000, 'q').c_str()).size(), 5002u);
  ASSERT_TRUE(kest::cTracepoint::SelectSink("stderr"));
  std::pair<char const*, char const*> const cases[] = {  // maximum level, what 005 writes
      {"004", ""},
      {"999", "Mod 005 file.cpp:7 two lines\n"},
  };
  for (auto const& [maxLevel, want] : cases) {
    kest::cTracepoint::SetMaxLevel(maxLevel);
    ::testing::internal::CaptureStdout();
    CaptureStderr();
    kest::cTracepoint::Call("Mod", "005", 0, "two\nlines\n", "", "src/file.cpp", 7);
    EXPECT_EQ(GetCapturedStderr(), want) << maxLevel;
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  }
}

}  // namespace

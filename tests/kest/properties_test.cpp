#include "kest/properties.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "kest/trace.h"

namespace {

class PropertiesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kest-props-XXXXXX";
    int fd = mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    close(fd);
    path = tmpl;
  }
  void TearDown() override {
    std::remove(path.c_str());
    kest::kestDeinit(true);
  }
  void Write(std::string const& text) { std::ofstream(path) << text; }

  // Runs kestInit with the given arguments after the program name.
  void Init(std::vector<std::string> args) {
    args.insert(args.begin(), "prog");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    kest::kestInit(static_cast<int>(args.size()), argv.data(), "extra usage");
  }
  std::string path;
};

TEST_F(PropertiesTest, LoadFileParsesLinesOrNamesTheBadOne) {
  struct Case {
    std::string text;
    bool ok;
    std::string key, value, error;
  };
  std::vector<Case> cases = {
      {"# comment\n\n  a.b = 1 2 \n", true, "a.b", "1 2", ""},
      {"k=v=w\n", true, "k", "v=w", ""},
      {"k=\n", true, "k", "", ""},
      {"ok=1\n# fine\nno equals here\n", false, "", "", ":3: expected key=value"},
      {"=value\n", false, "", "", ":1: expected key=value"},
  };
  for (auto const& c : cases) {
    Write(c.text);
    kest::cPropertyList props;
    std::string error;
    EXPECT_EQ(props.LoadFile(path, error), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(props.GetStringForKey(c.key, "<unset>"), c.value) << c.text;
    } else {
      EXPECT_EQ(error.rfind(path + c.error, 0), 0u) << error;
      EXPECT_FALSE(props.Has("ok"));  // a bad file sets nothing
    }
  }
  kest::cPropertyList props;
  std::string error;
  EXPECT_FALSE(props.LoadFile(path + ".missing", error));
  EXPECT_NE(error.find(path + ".missing"), std::string::npos);
}

TEST_F(PropertiesTest, OverridesWinOverTheFileInEitherSpelling) {
  Write("system.a=file\nsystem.b=file\nsystem.c=file\n");
  Init({"--prop", "system.a=cli", "--props", path, "--prop=system.b=cli=x"});
  auto& p = kest::kestProperties();
  EXPECT_EQ(p.GetStringForKey("system.a", "def"), "cli");
  EXPECT_EQ(p.GetStringForKey("system.b", "def"), "cli=x");
  EXPECT_EQ(p.GetStringForKey("system.c", "def"), "file");
  EXPECT_EQ(p.GetStringForKey("system.none", "def"), "def");
}

TEST_F(PropertiesTest, TracePropertySelectsTheSink) {
  Init({"--prop", "kest.trace=off"});
  ::testing::internal::CaptureStderr();
  kest::cTracepoint::Call("M", "001", 0, "hidden", "", "f", 1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

using PropertiesDeathTest = PropertiesTest;

TEST_F(PropertiesDeathTest, BadCommandLinesExitTwoNamingTheProblem) {
  Write("good=1\nbad line\n");
  struct Case {
    std::vector<std::string> args;
    std::string stderrRegex;
  };
  std::vector<Case> cases = {
      {{"--bogus"}, "unknown option '--bogus'"},
      {{"stray"}, "unknown option 'stray'"},
      {{"--props"}, "'--props' needs a value"},
      {{"--prop", "novalue"}, "KEY=VALUE, got 'novalue'"},
      {{"--props", path}, ":2: expected key=value"},
      {{"--prop", "kest.trace=printer"}, "unknown trace sink 'printer'"},
  };
  for (auto const& c : cases) {
    EXPECT_EXIT(Init(c.args), ::testing::ExitedWithCode(2), c.stderrRegex) << c.args[0];
  }
  EXPECT_EXIT(Init({"--help"}), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(Init({"--version"}), ::testing::ExitedWithCode(0), "");
}

}  // namespace

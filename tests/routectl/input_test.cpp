#include <gtest/gtest.h>
#include <unistd.h>

#include "routectl/line_reader.h"
#include "routectl/options.h"

namespace {

using Args = std::vector<std::string>;

TEST(RoutectlOptions, ReadsOptionsThenTheCommand) {
  routectl::cOptions o;
  std::string error;
  ASSERT_TRUE(routectl::ParseOptions(
      Args{"-j", "--server", "127.0.0.1:9", "--hold", "--wait", "3", "route", "del", "-x"}, o,
      error))
      << error;
  EXPECT_TRUE(o.json);
  EXPECT_TRUE(o.hold);
  EXPECT_EQ(o.server, "127.0.0.1:9");
  EXPECT_EQ(o.waitMs, 3000);
  EXPECT_EQ(o.words, (Args{"route", "del", "-x"}));
}

TEST(RoutectlOptions, UsageErrors) {
  struct {
    Args args;
    char const* error;
  } const cases[] = {
      {{}, "no command given"},
      {{"--hold"}, "no command given"},
      {{"-b"}, "-b needs a value"},
      {{"-b", "f", "route", "del", "x"}, "give either -b FILE or a command, not both"},
      {{"--frob", "route"}, "unknown option --frob"},
      {{"--timeout", "0", "route"}, "--timeout takes milliseconds (1..600000)"},
      {{"--wait", "x", "route"}, "--wait takes seconds (0..3600)"},
  };
  for (auto const& c : cases) {
    routectl::cOptions o;
    std::string error;
    EXPECT_FALSE(routectl::ParseOptions(c.args, o, error));
    EXPECT_EQ(error, c.error);
  }
  routectl::cOptions o;
  std::string error;
  EXPECT_FALSE(routectl::ParseOptions(Args{"--server", "localhost", "route"}, o, error));
  EXPECT_FALSE(error.empty());
}

TEST(RoutectlOptions, HelpSaysRoutesGoWithTheConnection) {
  routectl::cOptions o;
  std::string error;
  ASSERT_TRUE(routectl::ParseOptions(Args{"--help"}, o, error));
  EXPECT_EQ(o.action, routectl::cOptions::kHelp);
  EXPECT_NE(routectl::HelpText().find("lives only as long as the connection"), std::string::npos);
}

TEST(RoutectlLineReader, SplitsLinesAndSkipsOversizedOnes) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::string input = "one\n\ntwo\r\n" + std::string(routectl::cLineReader::kMaxLine + 10, 'x') +
                      "\nthree\n" + std::string(routectl::cLineReader::kMaxLine + 1, 'y');
  // A child writes, so input larger than a pipe buffer streams in as from a file.
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::close(fds[0]);
    std::size_t off = 0;
    while (off < input.size()) {
      ssize_t n = ::write(fds[1], input.data() + off, input.size() - off);
      if (n <= 0) ::_exit(1);
      off += static_cast<std::size_t>(n);
    }
    ::_exit(0);
  }
  ::close(fds[1]);
  routectl::cLineReader reader(fds[0]);
  std::vector<std::string> got;
  std::string line;
  for (;;) {
    auto r = reader.Next(line);
    if (r == routectl::cLineReader::kEof) break;
    got.push_back(r == routectl::cLineReader::kTooLong ? "<too long>" : line.substr(0, 20));
  }
  ::close(fds[0]);
  EXPECT_EQ(got,
            (std::vector<std::string>{"one", "", "two\r", "<too long>", "three", "<too long>"}));
}

}  // namespace

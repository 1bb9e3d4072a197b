#include "options.h"

#include <gtest/gtest.h>

#include <vector>

namespace halproxy {
namespace {

bool Parse(std::vector<char const*> args, cOptions& opt, std::string& error) {
  args.insert(args.begin(), "halproxy");
  return ParseOptions(static_cast<int>(args.size()), args.data(), opt, error);
}

TEST(HalproxyOptions, DefaultsAreTheDaemonsAccessPointAndTheMemoryBackend) {
  cOptions opt;
  std::string error;
  ASSERT_TRUE(Parse({}, opt, error)) << error;
  EXPECT_EQ("127.0.0.1:3710", opt.listen);
  EXPECT_EQ(cOptions::eBackend::kMemory, opt.backend);
  EXPECT_EQ(eUnavailable::kSkip, opt.unavailable);
  EXPECT_EQ("info", opt.logLevel);
  EXPECT_FALSE(opt.syslog);
}

TEST(HalproxyOptions, ValuesInBothSpellings) {
  cOptions opt;
  std::string error;
  ASSERT_TRUE(Parse({"--listen", "unix:/run/hal.sock", "--backend=netlink", "--unavailable",
                     "unreachable", "--log-level=debug", "--syslog"},
                    opt, error))
      << error;
  EXPECT_EQ("unix:/run/hal.sock", opt.listen);
  EXPECT_EQ(cOptions::eBackend::kNetlink, opt.backend);
  EXPECT_EQ(eUnavailable::kUnreachable, opt.unavailable);
  EXPECT_EQ("debug", opt.logLevel);
  EXPECT_TRUE(opt.syslog);

  ASSERT_TRUE(Parse({"--listen=0.0.0.0:0", "--interfaces=eth0,wlan0"}, opt, error)) << error;
  EXPECT_EQ("0.0.0.0:0", opt.listen);
  EXPECT_EQ((std::set<std::string>{"eth0", "wlan0"}), opt.interfaces);
}

TEST(HalproxyOptions, BadArgumentsAreNamed) {
  struct Case {
    std::vector<char const*> args;
    char const* named;
  };
  Case cases[] = {
      {{"--backend=kernel"}, "'kernel' for --backend"},
      {{"--unavailable=drop"}, "'drop' for --unavailable"},
      {{"--log-level=loud"}, "'loud' for --log-level"},
      {{"--listen", "127.0.0.1"}, "'127.0.0.1' for --listen"},
      {{"--listen=1.2.3.4:99999"}, "'1.2.3.4:99999' for --listen"},
      {{"--listen"}, "--listen needs a value"},
      {{"--interfaces=eth0,,eth1"}, "--interfaces"},
      {{"--backend=netlink", "--interfaces=eth0"}, "--interfaces is only for"},
      {{"--frobnicate"}, "'--frobnicate'"},
      {{"eth0"}, "'eth0'"},
  };
  for (auto const& c : cases) {
    cOptions opt;
    std::string error;
    EXPECT_FALSE(Parse(c.args, opt, error)) << c.args[0];
    EXPECT_NE(error.find(c.named), std::string::npos) << error;
  }
}

}  // namespace
}  // namespace halproxy

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
  EXPECT_EQ(64u, opt.limits.maxConnections);
  EXPECT_TRUE(opt.limits.allowUids.empty());
}

TEST(HalproxyOptions, ListenerLimitsAndAllowListsAddUp) {
  cOptions opt;
  std::string error;
  ASSERT_TRUE(Parse({"--listen=unix:/run/hal.sock", "--max-connections=3", "--send-limit", "70000",
                     "--socket-mode=600", "--socket-group=netdev", "--allow-uid=root,1000",
                     "--allow-uid", "7", "--allow-gid=0"},
                    opt, error))
      << error;
  EXPECT_EQ(3u, opt.limits.maxConnections);
  EXPECT_EQ(70000u, opt.limits.sendLimit);
  EXPECT_EQ(0600u, opt.limits.socketMode);
  EXPECT_EQ("netdev", opt.limits.socketGroup);
  EXPECT_EQ((std::set<unsigned>{0, 7, 1000}), opt.limits.allowUids);
  EXPECT_EQ((std::set<unsigned>{0}), opt.limits.allowGids);
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
      {{"--max-connections=0"}, "'0' for --max-connections"},
      {{"--max-connections=-1"}, "'-1' for --max-connections"},
      {{"--send-limit=65539"}, "'65539' for --send-limit"},  // less than one largest frame
      {{"--listen=unix:/h", "--socket-mode=0800"}, "'0800' for --socket-mode"},
      {{"--listen=unix:/h", "--socket-mode=01777"}, "'01777' for --socket-mode"},
      {{"--listen=unix:/h", "--allow-uid=root,"}, "empty entry"},
      {{"--listen=unix:/h", "--allow-uid="}, "'' for --allow-uid"},
      {{"--listen=unix:/h", "--allow-gid=no-such-group-here"}, "unknown group"},
      {{"--listen=unix:/h", "--allow-uid=4294967295"}, "unknown user"},
      {{"--allow-uid=0"}, "need --listen unix:/path"},
      {{"--listen=127.0.0.1:1", "--socket-mode=0600"}, "need --listen unix:/path"},
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

// halproxy's listener bounds and allow-lists as its command line sets them.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cstdlib>

#include "kest/format.h"
#include "proxy_process.h"

namespace halproxy_test {
namespace {

// Connects without a word and waits: true when the proxy hangs up.
bool HungUpOn(cProxyProcess const& proxy) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", proxy.SocketPath().c_str());
  timeval tv{3, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  char byte;
  bool eof = connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
             recv(fd, &byte, 1, 0) == 0;
  close(fd);
  return eof;
}

bool Logged(cProxyProcess const& proxy, std::string const& text) {
  return PumpUntil([&] { return proxy.Log().find(text) != std::string::npos; }, 3000);
}

class HalproxyAccess : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::getenv("ROUTEMGR_EMULATED") != nullptr)
      GTEST_SKIP() << "starts halproxy, a target program: not under emulation";
    kest::ResetLoop();
  }
  void TearDown() override { kest::ResetLoop(); }
};

TEST_F(HalproxyAccess, SocketModeAndConnectionLimitFromTheCommandLine) {
  cProxyProcess proxy;
  std::string error;
  ASSERT_TRUE(proxy.Start({"--socket-mode=0600", "--max-connections=1", "--send-limit=65540"},
                          error))
      << error;
  struct stat st {};
  ASSERT_EQ(0, stat(proxy.SocketPath().c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  EXPECT_TRUE(Logged(proxy, "listening on " + proxy.AccessPoint() +
                     " (mode 0600, any user the mode lets in; at most 1 connections, send "
                     "limit 65540 bytes)"))
      << proxy.Log();

  cConnectedClient c(proxy.AccessPoint());
  ASSERT_TRUE(c.Connect());
  EXPECT_TRUE(HungUpOn(proxy));
  EXPECT_TRUE(Logged(proxy, kest::FormatString("refusing connection from uid=%u pid=%d on %s: 1 "
                                        "connections open, the limit",
                                        getuid(), getpid(), proxy.AccessPoint().c_str())))
      << proxy.Log();
  EXPECT_EQ(std::vector<std::string>{}, c.Routes());  // the first is still served
}

TEST_F(HalproxyAccess, PeerOutsideTheAllowListsIsHungUpOnWithItsUidNamed) {
  std::string const other = std::to_string(getuid() + 1);
  std::string const otherGid = std::to_string(getgid() + 1);
  struct Case {
    std::vector<std::string> args;
    bool served;
  } const cases[] = {
      {{"--allow-uid", other, "--allow-gid=" + otherGid}, false},
      {{"--allow-uid=" + other, "--allow-gid", otherGid + "," + std::to_string(getgid())}, true},
      {{"--allow-uid=" + other + "," + std::to_string(getuid())}, true},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.args[0]);
    cProxyProcess proxy;
    std::string error;
    ASSERT_TRUE(proxy.Start(c.args, error)) << error;
    if (c.served) {
      cConnectedClient client(proxy.AccessPoint());
      ASSERT_TRUE(client.Connect());
      EXPECT_EQ(std::vector<std::string>{}, client.Routes());
    } else {
      EXPECT_TRUE(HungUpOn(proxy));
      std::string const refusal =
          kest::FormatString("uid %u gid %u not allowed", getuid(), getgid());
      EXPECT_TRUE(Logged(proxy, refusal)) << proxy.Log();
    }
    EXPECT_EQ(0, proxy.Stop());
  }
}

}  // namespace
}  // namespace halproxy_test

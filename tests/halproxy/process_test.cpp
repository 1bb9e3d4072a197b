// halproxy as a program: the HAL client talking to it, bad input on its
// socket, its listener's access control and its command line.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "hal/hal_protocol.h"
#include "kest/format.h"
#include "kest/frame.h"
#include "kest/hello.h"
#include "proxy_process.h"

namespace halproxy_test {
namespace {

class HalproxyProcess : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string const why = testsupport::CannotStartPrograms(); !why.empty())
      GTEST_SKIP() << why;
    kest::ResetLoop();
  }
  void TearDown() override { kest::ResetLoop(); }
  // A plain connection whose reads give up after 3 s, past its hello unless told not to.
  int Connect(bool greet = true) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{AF_UNIX, {}};
    proxy.SocketPath().copy(sa.sun_path, sizeof sa.sun_path - 1);
    timeval tv{3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa));
    if (greet) {
      std::vector<std::uint8_t> hello, accepted, got;
      kest::EncodeFrame(kest::HelloFrame(1, hal::kService), hello);
      kest::EncodeFrame(kest::AcceptFrame(1, hal::kService), accepted);
      EXPECT_EQ(static_cast<ssize_t>(hello.size()), write(fd, hello.data(), hello.size()));
      got.resize(accepted.size());
      EXPECT_EQ(static_cast<ssize_t>(got.size()), recv(fd, got.data(), got.size(), MSG_WAITALL));
      EXPECT_EQ(accepted, got);
    }
    return fd;
  }
  // The refusal's reason of a connection the proxy refuses, read to its end.
  std::string Refusal() {
    int fd = Connect(false);
    std::uint8_t buf[1024];
    kest::cFrameReader reader;
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) reader.Feed(buf, static_cast<std::size_t>(n));
    close(fd);
    kest::cFrame f;
    kest::cGreeting g;
    std::string error;
    bool ok = n == 0 && reader.Next(f, error) == kest::cFrameReader::kFrame &&
              kest::DecodeRefusal(f.body, g, error);
    return ok ? g.reason : "no refusal and close: " + error;
  }
  cProxyProcess proxy;
};

// Over TCP, the daemon's default transport, on a port the system picks.
TEST_F(HalproxyProcess, ClientRequestsChangeTheTableAndAreLogged) {
  ASSERT_TRUE(proxy.Start({"--log-level=debug", "--interfaces=eth1"}, {}, "127.0.0.1:0"));
  ASSERT_TRUE(proxy.Connect());
  EXPECT_EQ(0, proxy.Hal().ConfigureIPGateway("10.1.2.3", "255.255.0.0", "192.168.1.1", "0.0.0.0",
                                              "eth1", 0, true));
  EXPECT_EQ(0, proxy.Hal().ConfigureIpDefaultGateway("10.0.0.1", 5));
  EXPECT_EQ(-ENODEV, proxy.Hal().ConfigureIPGateway("10.2.0.0", "255.255.0.0", "192.168.1.1",
                                                    "0.0.0.0", "eth9", 0, true));
  EXPECT_EQ(
      (Lines{"default via 10.0.0.1 metric 5", "10.1.0.0/16 via 192.168.1.1 dev eth1 metric 0"}),
      proxy.Routes());
  EXPECT_TRUE(
      proxy.Logged("ConfigureIPGateway 10.2.0.0/255.255.0.0 via 192.168.1.1 dev eth9 src "
                   "0.0.0.0 metric 0 avail=1 -> -19 (No such device: no interface 'eth9')"))
      << proxy.Log();
  // Test operations are off unless asked for.
  EXPECT_EQ(-EPERM, proxy.Hal().InjectFault(hal::halop::kConfigureIPGateway, -5, 1));
  EXPECT_TRUE(proxy.Logged("-> -1 (Operation not permitted: test operations are off"));
  EXPECT_EQ(0, proxy.Stop());  // SIGTERM ends it cleanly
}

// The refresh's batch: more requests in flight than one window, answered in
// the order asked (a removal between installations), failures counted, and
// the requests a dead proxy never answered counted too.
TEST_F(HalproxyProcess, BatchKeepsOrderAndCountsFailedAndLostAnswers) {
  ASSERT_TRUE(proxy.Start({"--interfaces=eth1", "--enable-test-ops"}));
  ASSERT_TRUE(proxy.Connect());
  hal::cHalClient& hal = proxy.Hal();
  ASSERT_EQ(0, hal.InjectFault(hal::halop::kConfigureIPGateway, -5, 2));
  auto const net = [](int i) { return kest::FormatString("10.%d.%d.0", i / 256, i % 256); };
  int const routes = 3 * static_cast<int>(kest::cServiceClient::kPostWindow);
  hal.BeginBatch();
  for (int i = 0; i < routes; ++i) {
    ASSERT_EQ(0, hal.ConfigureIPGateway(net(i), "255.255.255.0", "192.168.1.1", "0.0.0.0", "eth1",
                                        0, true));
  }
  // Leaves in the same write as the installation it undoes.
  EXPECT_EQ(0, hal.RemoveIPGateway(net(routes - 1), "255.255.255.0", "192.168.1.1", true));
  EXPECT_EQ(2u, hal.EndBatch());  // the first two met the fault
  Lines table = proxy.Routes();
  EXPECT_EQ(static_cast<std::size_t>(routes - 3), table.size());
  EXPECT_EQ(table.end(), std::find(table.begin(), table.end(),
                                   net(routes - 1) + "/24 via 192.168.1.1 dev eth1 metric 0"));
  EXPECT_NE(table.end(), std::find(table.begin(), table.end(),
                                   net(routes - 2) + "/24 via 192.168.1.1 dev eth1 metric 0"));

  proxy.Kill();
  hal.BeginBatch();
  for (int i = 0; i < 5; ++i) {
    hal.ConfigureIPGateway(net(i), "255.255.255.0", "192.168.1.1", "0.0.0.0", "eth1", 0, true);
  }
  EXPECT_EQ(5u, hal.EndBatch());
  hal.BeginBatch();
  EXPECT_EQ(-1001, hal.RemoveIPDefaultGateway("10.0.0.1"));
  EXPECT_EQ(1u, hal.EndBatch());
}

void Put(std::vector<std::uint8_t>& out, std::uint8_t kind, std::uint16_t op,
         std::vector<std::uint8_t> body) {
  kest::EncodeFrame({kind, 7, op, kest::cSerializeBuffer(body.data(), body.size())}, out);
}
void PutAnswer(std::vector<std::uint8_t>& out, std::uint16_t op, int rc) {
  kest::cSerializeBuffer body;
  hal::cRouteList list;
  list.result = rc;
  op == hal::halop::kListRoutes ? (void)hal::EncodeRouteList(list, body)
                                : hal::EncodeResult(rc, body);
  kest::EncodeFrame({kest::cFrame::kReply, 7, op, body}, out);
}

// Frames the HAL client would never send, pipelined: each request gets an
// error answer, an oversized frame a closed connection, and the proxy goes on.
TEST_F(HalproxyProcess, GarbageGetsAnErrorOrAClosedConnectionAndTheProxyGoesOn) {
  ASSERT_TRUE(proxy.Start({}));
  int fd = Connect();
  std::uint16_t const list = hal::halop::kListRoutes;
  std::vector<std::uint8_t> sent, expected, answers;
  Put(sent, kest::cFrame::kRequest, 77, {});
  Put(sent, kest::cFrame::kRequest, 1, {1, 200, 0, 0, 0, 'x'});
  Put(sent, kest::cFrame::kRequest, list, {0, 0, 0, 0, 0});  // a stray byte
  Put(sent, kest::cFrame::kEvent, 4, {});                    // not answered
  Put(sent, kest::cFrame::kRequest, list, {0, 0, 0, 0});
  PutAnswer(expected, 77, -EOPNOTSUPP);
  PutAnswer(expected, 1, -EBADMSG);
  PutAnswer(expected, list, -EBADMSG);
  PutAnswer(expected, list, 0);
  ASSERT_EQ(static_cast<ssize_t>(sent.size()), write(fd, sent.data(), sent.size()));
  answers.resize(expected.size());
  answers.resize(std::max<ssize_t>(0, recv(fd, answers.data(), answers.size(), MSG_WAITALL)));
  EXPECT_EQ(expected, answers);
  std::uint8_t huge[] = {0xFF, 0xFF, 0xFF, 0x7F, 1, 1, 0, 0, 0, 1, 0};
  ASSERT_EQ(static_cast<ssize_t>(sizeof huge), write(fd, huge, sizeof huge));
  EXPECT_EQ(0, read(fd, huge, 1));
  close(fd);
  ASSERT_TRUE(proxy.Connect());
  EXPECT_EQ(0, proxy.Hal().ConfigureIpDefaultGateway("10.0.0.1", 1));
  EXPECT_TRUE(proxy.Logged("bad request op 1")) << proxy.Log();
  EXPECT_EQ(0, proxy.Stop());
}

TEST_F(HalproxyProcess, SocketModeConnectionLimitAndAllowLists) {
  std::string const uid = std::to_string(getuid()), gid = std::to_string(getgid());
  std::string const otherUid = std::to_string(getuid() + 1);
  std::string const otherGid = std::to_string(getgid() + 1);
  struct Case {
    Lines args;
    unsigned mode;
    bool served;          // a first client
    std::string refusal;  // of a (next) one; "" when none is refused
  } const cases[] = {
      {{"--socket-mode=0600", "--max-connections=1"}, 0600, true, "1 connections open, the limit"},
      {{"--allow-uid", otherUid, "--allow-gid=" + otherGid},
       0660,
       false,
       "uid " + uid + " gid " + gid + " not allowed"},
      {{"--allow-uid=" + otherUid, "--allow-gid", otherGid + "," + gid}, 0660, true, ""},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.args.back());
    ASSERT_TRUE(proxy.Start(c.args));
    struct stat st {};
    EXPECT_EQ(0, stat(proxy.SocketPath().c_str(), &st));
    EXPECT_EQ(c.mode, st.st_mode & 0777);
    if (c.served) {
      ASSERT_TRUE(proxy.Connect());
    }
    if (!c.refusal.empty()) {
      EXPECT_EQ(c.refusal, Refusal());
      EXPECT_TRUE(proxy.Logged(kest::FormatString("refusing connection from uid=%u pid=%d on %s: ",
                                                  getuid(), getpid(), proxy.AccessPoint().c_str()) +
                               c.refusal))
          << proxy.Log();
    }
    if (c.served) {
      EXPECT_EQ(Lines{}, proxy.Routes()) << "still served";
    }
    EXPECT_EQ(0, proxy.Stop());
  }
}

TEST_F(HalproxyProcess, AnAccessPointItCannotTakeEndsItWithOne) {
  EXPECT_EQ(1, proxy.Run({"--listen", "unix:/nonexistent-dir/hal.sock"}));
  EXPECT_NE(proxy.Log().find("cannot listen on"), std::string::npos) << proxy.Log();
}

}  // namespace
}  // namespace halproxy_test

// halproxy as a program: the HAL client talking to it, bad input on its
// socket, its command line, and restarts.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>

#include "hal/hal_errors.h"
#include "hal/hal_protocol.h"
#include "kest/frame.h"
#include "proxy_process.h"

namespace halproxy_test {
namespace {

namespace halop = hal::halop;

class HalproxyProcess : public ::testing::Test {
 protected:
  void SetUp() override { kest::ResetLoop(); }
  void TearDown() override { kest::ResetLoop(); }
  cProxyProcess proxy;
};

TEST_F(HalproxyProcess, ClientRequestsChangeTheTableAndAreLogged) {
  std::string error;
  ASSERT_TRUE(proxy.Start({"--log-level=debug", "--interfaces=eth0,eth1"}, error)) << error;
  cConnectedClient c(proxy.AccessPoint());
  ASSERT_TRUE(c.Connect());
  auto& hal = c.client;

  EXPECT_EQ(0, hal.ConfigureIPGateway("10.1.2.3", "255.255.0.0", "192.168.1.1", "0.0.0.0", "eth1",
                                      0, true));
  EXPECT_EQ(0, hal.ConfigureIPGateway("10.9.0.0", "255.255.0.0", "0.0.0.0", "0.0.0.0", "", 0,
                                      false));
  EXPECT_EQ(0, hal.ConfigureIpDefaultGateway("10.0.0.1", 5));
  EXPECT_EQ(-ENODEV, hal.ConfigureIPGateway("10.2.0.0", "255.255.0.0", "192.168.1.1", "0.0.0.0",
                                            "eth9", 0, true));
  EXPECT_EQ(-EINVAL, hal.RemoveIPGateway("10.1.0.0", "255.255.0.0", "192.168.1", true));
  EXPECT_EQ((std::vector<std::string>{"default via 10.0.0.1 metric 5",
                                      "10.1.0.0/16 via 192.168.1.1 dev eth1 metric 0"}),
            c.Routes());

  ASSERT_EQ(0, hal.InjectFault(halop::kRemoveIPGateway, -EIO, 1));
  EXPECT_EQ(-EIO, hal.RemoveIPGateway("10.1.0.0", "255.255.0.0", "192.168.1.1", true));
  EXPECT_EQ(0, hal.RemoveIPGateway("10.1.0.0", "255.255.0.0", "192.168.1.1", true));
  EXPECT_EQ(0, hal.RemoveIPDefaultGateway("10.0.0.1"));
  EXPECT_EQ(std::vector<std::string>{}, c.Routes());

  std::string log = proxy.Log();
  for (char const* line :
       {"ConfigureIPGateway 10.1.2.3/255.255.0.0 via 192.168.1.1 dev eth1 src 0.0.0.0 metric 0 "
        "avail=1 -> 0",
        "ConfigureIPGateway 10.2.0.0/255.255.0.0 via 192.168.1.1 dev eth9 src 0.0.0.0 metric 0 "
        "avail=1 -> -19 (No such device: no interface 'eth9')",
        "RemoveIPGateway 10.1.0.0/255.255.0.0 via 192.168.1 avail=1 -> -22 (Invalid argument: "
        "unparsable gateway '192.168.1')",
        "RemoveIPDefaultGateway 10.0.0.1 -> 0"}) {
    EXPECT_NE(log.find(line), std::string::npos) << "missing: " << line << "\nlog:\n" << log;
  }
  EXPECT_EQ(0, proxy.Stop());
}

// A raw connection to the proxy, for what the HAL client would never send.
class cRawPeer {
 public:
  explicit cRawPeer(std::string const& path) {
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
    timeval tv{2, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    m_ok = connect(m_fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
  }
  ~cRawPeer() { close(m_fd); }
  bool Ok() const { return m_ok; }
  void SendBytes(std::vector<std::uint8_t> const& bytes) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(m_fd, bytes.data(), bytes.size()));
  }
  void Send(std::uint8_t kind, std::uint16_t op, std::vector<std::uint8_t> const& body) {
    kest::cFrame f;
    f.kind = kind;
    f.id = ++m_id;
    f.op = op;
    f.body.Write(body.data(), body.size());
    std::vector<std::uint8_t> out;
    kest::EncodeFrame(f, out);
    SendBytes(out);
  }
  // The next answer as "op:result"; "closed" or "no answer" otherwise.
  std::string Answer() {
    kest::cFrame f;
    std::string error;
    std::uint8_t buf[256];
    while (m_reader.Next(f, error) == kest::cFrameReader::kNeedMore) {
      ssize_t n = read(m_fd, buf, sizeof buf);
      if (n == 0) return "closed";
      if (n < 0) return "no answer";
      m_reader.Feed(buf, static_cast<std::size_t>(n));
    }
    int rc = 0;
    std::vector<std::string> lines;
    bool decoded = f.op == halop::kListRoutes ? hal::DecodeRouteList(f.body, rc, lines, error)
                                              : hal::DecodeResult(f.body, rc, error);
    if (f.kind != kest::cFrame::kReply || f.id != m_id || !decoded) return "bad answer";
    return std::to_string(f.op) + ":" + std::to_string(rc);
  }

 private:
  int m_fd = -1;
  bool m_ok = false;
  std::uint32_t m_id = 0;
  kest::cFrameReader m_reader;
};

TEST_F(HalproxyProcess, BadInputGetsAnErrorOrAClosedConnectionAndTheProxyGoesOn) {
  std::string error;
  ASSERT_TRUE(proxy.Start({}, error)) << error;
  {
    cRawPeer peer(proxy.SocketPath());
    ASSERT_TRUE(peer.Ok());
    peer.Send(kest::cFrame::kRequest, 77, {});
    EXPECT_EQ("77:" + std::to_string(-EOPNOTSUPP), peer.Answer());
    peer.Send(kest::cFrame::kRequest, halop::kConfigureIPGateway, {1, 200, 0, 0, 0, 'x'});
    EXPECT_EQ("1:" + std::to_string(-EBADMSG), peer.Answer());
    peer.Send(kest::cFrame::kRequest, halop::kListRoutes, {0});  // a stray byte
    EXPECT_EQ("16:" + std::to_string(-EBADMSG), peer.Answer());
    peer.Send(kest::cFrame::kEvent, halop::kRemoveIPDefaultGateway, {});  // ignored, not answered
    peer.Send(kest::cFrame::kRequest, halop::kListRoutes, {});
    EXPECT_EQ("16:0", peer.Answer());
    // A frame longer than any the proxy accepts: the connection is beyond repair.
    peer.SendBytes({0xFF, 0xFF, 0xFF, 0x7F, 1, 1, 0, 0, 0, 1, 0});
    EXPECT_EQ("closed", peer.Answer());
  }
  cConnectedClient c(proxy.AccessPoint());
  ASSERT_TRUE(c.Connect());
  EXPECT_EQ(0, c.client.ConfigureIpDefaultGateway("10.0.0.1", 1));
  EXPECT_TRUE(proxy.Running());
  EXPECT_NE(proxy.Log().find("bad request op 1"), std::string::npos) << proxy.Log();
  EXPECT_EQ(0, proxy.Stop());
}

class cCountingService : public kest::cService {
 public:
  void InitMessageMap() override {
    MessageMap().AddEntry("HAL::ON-CONNECT",
                          static_cast<kest::MsgHandler>(&cCountingService::OnHalConnect), nullptr);
  }
  void OnHalConnect(kest::cMsg&) { ++connects; }
  int connects = 0;
};

TEST_F(HalproxyProcess, ClientComesBackAfterTheProxyRestarts) {
  std::string error;
  ASSERT_TRUE(proxy.Start({}, error)) << error;
  cCountingService service;
  cNoCallbacks callbacks;
  hal::cHalClient client(&service, &callbacks, 2000, proxy.AccessPoint());
  client.Start();
  ASSERT_TRUE(PumpUntil([&] { return service.connects == 1; }));
  EXPECT_EQ(0, proxy.Stop());  // SIGTERM ends it cleanly
  ASSERT_TRUE(PumpUntil([&] { return !client.IsConnected(); }));
  EXPECT_EQ(hal::halerr::kNotConnected, client.ConfigureIpDefaultGateway("10.0.0.1", 1));

  ASSERT_TRUE(proxy.Start({}, error)) << error;
  ASSERT_TRUE(PumpUntil([&] { return service.connects == 2; }));
  EXPECT_EQ(0, client.ConfigureIpDefaultGateway("10.0.0.1", 1));
}

TEST_F(HalproxyProcess, ListensOnTcp) {
  // A free port: bound by us first, then handed over.
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sa;
  ASSERT_EQ(0, bind(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa));
  ASSERT_EQ(0, getsockname(s, reinterpret_cast<sockaddr*>(&sa), &len));
  close(s);
  std::string ap = "127.0.0.1:" + std::to_string(ntohs(sa.sin_port));
  std::string error;
  ASSERT_TRUE(proxy.Start({}, error, {}, ap)) << error;
  cConnectedClient c(ap);
  ASSERT_TRUE(c.Connect());
  EXPECT_EQ(0, c.client.ConfigureIpDefaultGateway("10.0.0.1", 1));
}

TEST(HalproxyCommandLine, BadArgumentsExitWithTwoAndAreNamed) {
  cProxyProcess scratch;  // only for its log file
  struct Case {
    std::vector<std::string> args;
    int status;
    char const* output;
  };
  Case cases[] = {
      {{"--backend=kernel"}, 2, "bad value 'kernel' for --backend"},
      {{"--listen", "nowhere"}, 2, "bad value 'nowhere' for --listen"},
      {{"--bogus"}, 2, "unknown argument '--bogus'"},
      {{"--help"}, 0, "--unavailable=skip|unreachable"},
      {{"--version"}, 0, "halproxy "},
      {{"--listen", "unix:/nonexistent-dir/hal.sock"}, 1, "cannot listen on"},
  };
  for (auto const& c : cases) {
    std::vector<std::string> argv = {HALPROXY_PATH};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    EXPECT_EQ(c.status, cProxyProcess::Run(argv, scratch.LogPath())) << c.args[0];
    std::string out = scratch.Log();
    EXPECT_NE(out.find(c.output), std::string::npos) << c.args[0] << ": " << out;
  }
}

}  // namespace
}  // namespace halproxy_test

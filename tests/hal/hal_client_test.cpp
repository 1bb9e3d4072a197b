// The HAL client on its own: failures it answers itself, the redirect, and
// its connection messages. Requests against a real proxy are tested with
// halproxy (tests/halproxy).
#include "hal/hal_client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "hal/hal_errors.h"
#include "hal/hal_protocol.h"
#include "kest/frame.h"
#include "kest/service.h"

namespace hal {
namespace {

class cCountingService : public kest::cService {
 public:
  void InitMessageMap() override {
    MessageMap().AddEntry("HAL::ON-CONNECT",
                          static_cast<kest::MsgHandler>(&cCountingService::OnHalConnect), nullptr);
  }
  void OnHalConnect(kest::cMsg&) { ++connects; }
  int connects = 0;
};

class cNoCallbacks : public IHalClient {};

class cRecordingApi : public IHalApi {
 public:
  int ConfigureIPGateway(std::string const& n, std::string const& m, std::string const& g,
                         std::string const& s, std::string const& i, unsigned int const& metric,
                         bool const& avail) override {
    calls.push_back("ConfigureIPGateway " + n + " " + m + " " + g + " " + s + " " + i + " " +
                    std::to_string(metric) + " " + (avail ? "1" : "0"));
    return -5;
  }
  int RemoveIPGateway(std::string const& n, std::string const& m, std::string const& g,
                      bool const& avail) override {
    calls.push_back("RemoveIPGateway " + n + " " + m + " " + g + " " + (avail ? "1" : "0"));
    return 0;
  }
  int ConfigureIpDefaultGateway(std::string const& g, unsigned int metric) override {
    calls.push_back("ConfigureIpDefaultGateway " + g + " " + std::to_string(metric));
    return 0;
  }
  int RemoveIPDefaultGateway(std::string const& g) override {
    calls.push_back("RemoveIPDefaultGateway " + g);
    return 0;
  }
  std::vector<std::string> calls;
};

bool PumpUntil(std::function<bool()> done, int timeoutMs = 3000) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done() && std::chrono::steady_clock::now() < deadline) kest::Loop().RunOnce(10);
  return done();
}

// A Unix listener the test controls by hand, in a private directory.
class HalClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kest::ResetLoop();
    char tmpl[] = "/tmp/halclient-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    m_dir = tmpl;
    m_path = m_dir + "/hal.sock";
    m_listen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", m_path.c_str());
    ASSERT_EQ(0, bind(m_listen, reinterpret_cast<sockaddr*>(&sa), sizeof sa));
    ASSERT_EQ(0, listen(m_listen, 4));
  }
  void TearDown() override {
    if (m_server.joinable()) m_server.join();
    kest::ResetLoop();
    close(m_listen);
    unlink(m_path.c_str());
    rmdir(m_dir.c_str());
  }
  std::string AccessPoint() const { return "unix:" + m_path; }
  int AcceptOne(int timeoutMs = 3000) {
    pollfd p{m_listen, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) != 1) return -1;
    return accept(m_listen, nullptr, nullptr);
  }
  // Answers the first request with body, then waits for the client to hang up.
  void AnswerOnceWith(std::vector<std::uint8_t> body) {
    m_server = std::thread([this, body] {
      int fd = AcceptOne();
      if (fd < 0) return;
      kest::cFrameReader reader;
      kest::cFrame req;
      std::string error;
      std::uint8_t buf[512];
      while (reader.Next(req, error) == kest::cFrameReader::kNeedMore) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        reader.Feed(buf, static_cast<std::size_t>(n));
      }
      kest::cFrame reply;
      reply.kind = kest::cFrame::kReply;
      reply.id = req.id;
      reply.op = req.op;
      reply.body.Write(body.data(), body.size());
      std::vector<std::uint8_t> out;
      kest::EncodeFrame(reply, out);
      if (write(fd, out.data(), out.size()) < 0) return;
      while (read(fd, buf, sizeof buf) > 0) {
      }
      close(fd);
    });
  }

  std::string m_dir, m_path;
  int m_listen = -1;
  std::thread m_server;
  cCountingService m_service;
  cNoCallbacks m_callbacks;
};

TEST_F(HalClientTest, EveryOperationAnswersNotConnectedBeforeTheConnection) {
  cHalClient client(&m_service, &m_callbacks, 1000, AccessPoint());
  std::vector<std::string> lines;
  EXPECT_EQ(halerr::kNotConnected,
            client.ConfigureIPGateway("10.1.0.0", "255.255.0.0", "1.2.3.4", "0.0.0.0", "", 0, true));
  EXPECT_EQ(halerr::kNotConnected, client.RemoveIPGateway("10.1.0.0", "255.255.0.0", "1.2.3.4", true));
  EXPECT_EQ(halerr::kNotConnected, client.ConfigureIpDefaultGateway("1.2.3.4", 0));
  EXPECT_EQ(halerr::kNotConnected, client.RemoveIPDefaultGateway("1.2.3.4"));
  EXPECT_EQ(halerr::kNotConnected, client.ListRoutes(lines));
}

TEST_F(HalClientTest, RedirectSendsEveryOperationToTheGivenApiUntilCleared) {
  cHalClient client(&m_service, &m_callbacks, 1000, AccessPoint());
  cRecordingApi api;
  client.Redirect(&api);
  EXPECT_EQ(-5, client.ConfigureIPGateway("10.1.0.0", "255.255.0.0", "192.168.1.1", "0.0.0.0",
                                          "eth1", 7, false));
  EXPECT_EQ(0, client.RemoveIPGateway("10.1.0.0", "255.255.0.0", "192.168.1.1", true));
  EXPECT_EQ(0, client.ConfigureIpDefaultGateway("10.0.0.1", 5));
  EXPECT_EQ(0, client.RemoveIPDefaultGateway("10.0.0.1"));
  EXPECT_EQ((std::vector<std::string>{
                "ConfigureIPGateway 10.1.0.0 255.255.0.0 192.168.1.1 0.0.0.0 eth1 7 0",
                "RemoveIPGateway 10.1.0.0 255.255.0.0 192.168.1.1 1",
                "ConfigureIpDefaultGateway 10.0.0.1 5", "RemoveIPDefaultGateway 10.0.0.1"}),
            api.calls);
  client.Redirect(nullptr);
  EXPECT_EQ(halerr::kNotConnected, client.RemoveIPDefaultGateway("10.0.0.1"));
  EXPECT_EQ(4u, api.calls.size());
}

TEST_F(HalClientTest, PostsOnConnectAtEveryConnection) {
  cHalClient client(&m_service, &m_callbacks, 1000, AccessPoint());
  ASSERT_TRUE(client.Start());
  ASSERT_TRUE(PumpUntil([&] { return m_service.connects == 1; }));
  int first = AcceptOne();
  ASSERT_GE(first, 0);
  close(first);  // the proxy went away; the client comes back by itself
  ASSERT_TRUE(PumpUntil([&] { return m_service.connects == 2; }));
  EXPECT_TRUE(client.IsConnected());
  int second = AcceptOne();
  if (second >= 0) close(second);
}

TEST_F(HalClientTest, ProxyThatNeverAnswersGivesTimeout) {
  cHalClient client(&m_service, &m_callbacks, 100, AccessPoint());
  ASSERT_TRUE(client.Start());
  ASSERT_TRUE(PumpUntil([&] { return client.IsConnected(); }));
  EXPECT_EQ(halerr::kTimeout, client.ConfigureIpDefaultGateway("10.0.0.1", 1));
}

TEST_F(HalClientTest, AnswerThatIsNoResultGivesProtocolError) {
  AnswerOnceWith({1, 2, 3});
  cHalClient client(&m_service, &m_callbacks, 2000, AccessPoint());
  ASSERT_TRUE(client.Start());
  ASSERT_TRUE(PumpUntil([&] { return client.IsConnected(); }));
  EXPECT_EQ(halerr::kProtocol,
            client.RemoveIPGateway("10.1.0.0", "255.255.0.0", "192.168.1.1", true));
  client.Stop();
}

TEST(HalLibrary, InitAndDeinitAreHarmless) {
  EXPECT_TRUE(halInit());
  halDeinit();
}

}  // namespace
}  // namespace hal

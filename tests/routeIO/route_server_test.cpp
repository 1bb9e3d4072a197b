#include "routeIO/route_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "kest/format.h"
#include "kest/loop.h"
#include "kest/properties.h"
#include "kest/service.h"
#include "kest/trace.h"
#include "routeIO/route_client.h"
#include "routeIO/route_protocol.h"

namespace routeIO {
namespace {

kest::s_socket_addr Ip(char const* dotted) { return kest::s_socket_addr(dotted, 0); }

// Records every callback as a line; channels are named ch1, ch2, ... in the
// order they are first seen, so a line shows which connection it came from.
// Results are derived from the arguments, so the client side can tell that
// each answer belongs to its own request: a priority p answers (p == 0, p),
// DelRoute of "unknown" answers (false, -100).
class cRecordingRouteServer : public IRouteServer {
 public:
  std::vector<std::string> lines;
  int closed = 0;

  void OnClientConnected(cRouteServer*, kest::cChannel* ch) override {
    lines.push_back("Connected " + Name(ch));
  }
  void OnClientClosed(cRouteServer*, kest::cChannel* ch) override {
    lines.push_back("Closed " + Name(ch));
    ++closed;
  }
  routeResult SetGateway(kest::s_socket_addr const& a, std::string const& tag,
                         std::string const& ifname, std::uint32_t type,
                         std::uint32_t prio) override {
    lines.push_back(kest::FormatString("SetGateway %s tag=%s dev %s type=%u prio=%u",
                                       a.GetIPString().c_str(), tag.c_str(), ifname.c_str(),
                                       type, prio));
    return {prio == 0, static_cast<std::int32_t>(prio)};
  }
  routeResult SetRoute(kest::cChannel* ch, kest::s_socket_addr const& net,
                       kest::s_socket_addr const& mask, kest::s_socket_addr const& gw,
                       kest::s_socket_addr const& src, std::string const& ifname,
                       std::string const& tag, std::uint32_t prio) override {
    lines.push_back(kest::FormatString(
        "SetRoute %s %s/%s via %s src %s dev %s tag=%s prio=%u", Name(ch).c_str(),
        net.GetIPString().c_str(), mask.GetIPString().c_str(), gw.GetIPString().c_str(),
        src.GetIPString().c_str(), ifname.c_str(), tag.c_str(), prio));
    return {prio == 0, static_cast<std::int32_t>(prio)};
  }
  routeResult DelGateway(std::string const& tag) override {
    lines.push_back("DelGateway tag=" + tag);
    return {true, 0};
  }
  routeResult DelRoute(kest::cChannel* ch, std::string const& tag) override {
    lines.push_back("DelRoute " + Name(ch) + " tag=" + tag);
    return tag == "unknown" ? routeResult{false, -100} : routeResult{true, 0};
  }

 private:
  std::string Name(kest::cChannel* ch) {
    auto it = m_names.find(ch);
    if (it == m_names.end()) it = m_names.emplace(ch, "ch" + std::to_string(m_names.size() + 1)).first;
    return it->second;
  }
  std::map<kest::cChannel*, std::string> m_names;
};

std::string Text(routeResult r) {
  return std::string(r.success ? "ok " : "fail ") + std::to_string(r.rc);
}

class RouteServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kest::ResetLoop();
    kest::kestProperties().Set(cRouteServer::kSapProperty, "127.0.0.1:0");
    m_server = std::make_unique<cRouteServer>(&m_service, &m_fake);
  }
  void TearDown() override {
    m_server.reset();
    kest::kestProperties().Set(cRouteServer::kSapProperty, cRouteServer::kDefaultSap);
  }

  std::string Sap() const { return "127.0.0.1:" + std::to_string(m_server->BoundPort()); }

  // The client blocks, the server needs the loop: the client's step runs on
  // its own thread while this one turns the loop.
  void Step(std::function<void()> clientStep) {
    std::atomic<bool> done{false};
    std::thread t([&] {
      clientStep();
      done = true;
    });
    while (!done) kest::Loop().RunOnce(5);
    t.join();
    kest::Loop().RunUntilIdle();
  }
  void RunUntil(std::function<bool()> cond) {
    for (int i = 0; i < 400 && !cond(); ++i) kest::Loop().RunOnce(5);
    ASSERT_TRUE(cond());
  }
  bool Connect(cRouteClient& c, int timeoutMs = 2000) {
    bool ok = false;
    std::string error;
    Step([&] { ok = c.Connect(Sap(), timeoutMs, error); });
    EXPECT_TRUE(ok) << error;
    return ok;
  }

  kest::cService m_service;
  cRecordingRouteServer m_fake;
  std::unique_ptr<cRouteServer> m_server;
};

TEST_F(RouteServerTest, DeliversEachCommandWithItsClientAndAnswersIt) {
  ASSERT_TRUE(m_server->SetReady());
  cRouteClient a, b;
  ASSERT_TRUE(Connect(a));
  std::vector<std::string> answers;
  Step([&] {
    answers.push_back(Text(a.SetGateway(Ip("10.0.0.1"), "wired", "eth0", 1, 5)));
    answers.push_back(Text(a.SetRoute(Ip("10.1.0.0"), Ip("255.255.0.0"), Ip("192.168.1.1"),
                                      Ip("0.0.0.0"), "eth1", "a", 0)));
  });
  ASSERT_TRUE(Connect(b));
  Step([&] {
    answers.push_back(Text(b.SetRoute(Ip("10.2.0.0"), Ip("255.255.255.0"), Ip("192.168.2.1"),
                                      Ip("192.168.2.9"), "eth2", "b", 3)));
    answers.push_back(Text(b.DelRoute("unknown")));
  });
  a.Close();
  RunUntil([&] { return m_fake.closed == 1; });
  Step([&] {
    answers.push_back(Text(b.DelGateway("wired")));
    answers.push_back(Text(b.DelRoute("b")));
  });
  b.Close();
  RunUntil([&] { return m_fake.closed == 2; });

  EXPECT_EQ(m_fake.lines, (std::vector<std::string>{
                              "Connected ch1",
                              "SetGateway 10.0.0.1 tag=wired dev eth0 type=1 prio=5",
                              "SetRoute ch1 10.1.0.0/255.255.0.0 via 192.168.1.1 src 0.0.0.0 "
                              "dev eth1 tag=a prio=0",
                              "Connected ch2",
                              "SetRoute ch2 10.2.0.0/255.255.255.0 via 192.168.2.1 src "
                              "192.168.2.9 dev eth2 tag=b prio=3",
                              "DelRoute ch2 tag=unknown",
                              "Closed ch1",
                              "DelGateway tag=wired",
                              "DelRoute ch2 tag=b",
                              "Closed ch2",
                          }));
  EXPECT_EQ(answers, (std::vector<std::string>{"fail 5", "ok 0", "fail 3", "fail -100", "ok 0",
                                               "ok 0"}));
}

TEST_F(RouteServerTest, AcceptsOnlyOnceReady) {
  // Learn a free port, then offer it to the server.
  int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(sa);
  ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&sa), len), 0);
  ASSERT_EQ(::getsockname(probe, reinterpret_cast<sockaddr*>(&sa), &len), 0);
  ::close(probe);
  std::string const sap = "127.0.0.1:" + std::to_string(ntohs(sa.sin_port));
  kest::kestProperties().Set(cRouteServer::kSapProperty, sap);

  cRouteClient c;
  std::string error;
  EXPECT_FALSE(m_server->IsReady());
  EXPECT_FALSE(c.Connect(sap, 500, error));
  EXPECT_FALSE(error.empty());
  EXPECT_TRUE(m_fake.lines.empty());

  ASSERT_TRUE(m_server->SetReady());
  ASSERT_TRUE(m_server->SetReady());  // again: same listener
  EXPECT_EQ(Sap(), sap);
  bool ok = false;
  Step([&] { ok = c.Connect(sap, 500, error) && c.DelGateway("x").success; });
  EXPECT_TRUE(ok) << error;
  EXPECT_EQ(m_fake.lines, (std::vector<std::string>{"Connected ch1", "DelGateway tag=x"}));
}

TEST_F(RouteServerTest, GarbageClosesTheClientWithATraceAndCloseIsDelivered) {
  ASSERT_TRUE(m_server->SetReady());
  auto frame = [](std::uint8_t kind, std::uint16_t op, std::vector<std::uint8_t> body) {
    kest::cFrame f;
    f.kind = kind;
    f.id = 7;
    f.op = op;
    f.body.Write(body.data(), body.size());
    std::vector<std::uint8_t> out;
    kest::EncodeFrame(f, out);
    return out;
  };
  kest::cSerializeBuffer route;
  ASSERT_TRUE(EncodeCommand(cDelRouteCmd{"t"}, route));
  std::vector<std::uint8_t> const& whole = route.Bytes();
  std::vector<std::uint8_t> const truncated(whole.begin(), whole.end() - 1);
  std::vector<std::uint8_t> stray(whole);
  stray.push_back(0);

  struct Case {
    char const* what;
    std::vector<std::uint8_t> bytes;
    char const* trace;
  } const cases[] = {
      {"unknown op", frame(kest::cFrame::kRequest, 9, {}), "unknown op 9"},
      {"truncated body", frame(kest::cFrame::kRequest, routeop::kDelRoute, truncated),
       "malformed DelRoute body"},
      {"stray bytes", frame(kest::cFrame::kRequest, routeop::kDelRoute, stray), "stray bytes"},
      {"event instead of request", frame(kest::cFrame::kEvent, routeop::kDelRoute, route.Bytes()),
       "instead of a request"},
      {"oversized frame", {0xFF, 0xFF, 0xFF, 0x7F, 1, 0, 0, 0, 0, 0, 0}, ""},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.what);
    m_fake.lines.clear();
    m_fake.closed = 0;
    kest::cTraceCapture traces;
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(m_server->BoundPort());
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
    ASSERT_EQ(::send(fd, c.bytes.data(), c.bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(c.bytes.size()));
    RunUntil([&] { return m_fake.closed == 1; });
    ASSERT_EQ(m_fake.lines.size(), 2u);  // no command delivered
    EXPECT_EQ(m_fake.lines[1].substr(0, 6), "Closed");
    char byte;
    EXPECT_LE(::recv(fd, &byte, 1, 0), 0);  // disconnected, no answer
    ::close(fd);
    bool traced = false;
    for (auto const& m : traces.Messages())
      traced = traced || (m.find(c.trace) != std::string::npos && m.find("127.0.0.1") != std::string::npos);
    EXPECT_TRUE(traced) << "no trace naming the peer and \"" << c.trace << "\"";
  }
}

TEST_F(RouteServerTest, PipelinedRequestsAreAnsweredInOrder) {
  ASSERT_TRUE(m_server->SetReady());
  cRouteClient c;
  ASSERT_TRUE(Connect(c));
  constexpr std::uint32_t kCount = 1000;
  std::vector<std::int32_t> posted, rcs;
  Step([&] {
    for (std::uint32_t i = 0; i < kCount; ++i)
      posted.push_back(c.Post(cSetRouteCmd{kest::s_socket_addr(0x0A000000u + (i << 8), 0),
                                           Ip("255.255.255.0"), Ip("192.168.1.1"),
                                           Ip("0.0.0.0"), "eth1", "r" + std::to_string(i), i}));
    while (c.Outstanding() > 0) rcs.push_back(c.Collect().rc);
  });
  ASSERT_EQ(rcs.size(), kCount);
  for (std::uint32_t i = 0; i < kCount; ++i) {
    ASSERT_EQ(posted[i], 0) << i;
    ASSERT_EQ(rcs[i], static_cast<std::int32_t>(i)) << "answer " << i << " out of order";
  }
  ASSERT_EQ(m_fake.lines.size(), kCount + 1);
  EXPECT_EQ(m_fake.lines[kCount],
            "SetRoute ch1 10.3.231.0/255.255.255.0 via 192.168.1.1 src 0.0.0.0 dev eth1 "
            "tag=r999 prio=999");
}

TEST_F(RouteServerTest, ClientSideFailuresHaveTheirOwnCodes) {
  cRouteClient c;
  std::string error;
  EXPECT_EQ(c.DelRoute("x").rc, routeerr::kNotConnected);
  EXPECT_EQ(c.Collect().rc, routeerr::kNothingPosted);
  EXPECT_FALSE(c.Connect("127.0.0.1:1", 500, error));  // nothing listens there
  EXPECT_FALSE(c.Connect("not an access point", 500, error));
  EXPECT_EQ(c.SetGateway(Ip("1.1.1.1"), std::string(kest::s_string::kMaxLength + 1, 't'), "e",
                         0, 0).rc,
            routeerr::kNotConnected);

  ASSERT_TRUE(m_server->SetReady());
  ASSERT_TRUE(Connect(c, 100));
  EXPECT_EQ(c.DelGateway(std::string(kest::s_string::kMaxLength + 1, 't')).rc,
            routeerr::kBadRequest);

  // The loop is not turned: the answer is late. The next call must get its
  // own answer, not the late one.
  EXPECT_EQ(c.SetRoute(Ip("10.0.0.0"), Ip("255.0.0.0"), Ip("1.1.1.1"), Ip("0.0.0.0"), "e", "t",
                       7).rc,
            routeerr::kTimeout);
  routeResult next{};
  Step([&] { next = c.DelRoute("unknown"); });
  EXPECT_EQ(Text(next), "fail -100");

  ASSERT_EQ(c.Post(cDelGatewayCmd{"p"}), 0);
  EXPECT_EQ(c.DelGateway("q").rc, routeerr::kBusy);
  Step([&] { next = c.Collect(); });
  EXPECT_EQ(Text(next), "ok 0");

  // The service goes away: a waiting caller learns it at once, and the
  // teardown itself reports nothing to the half-destroyed service.
  m_fake.lines.clear();
  m_server.reset();
  EXPECT_EQ(c.DelGateway("q").rc, routeerr::kConnectionLost);
  EXPECT_FALSE(c.IsConnected());
  EXPECT_EQ(c.DelGateway("q").rc, routeerr::kNotConnected);
  EXPECT_TRUE(m_fake.lines.empty());
}

}  // namespace
}  // namespace routeIO

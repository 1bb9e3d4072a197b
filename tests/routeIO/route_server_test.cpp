// The route service as route clients meet it: commands with their connection,
// bad input, and the access control and bounds its properties set.
#include "routeIO/route_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "kest/format.h"
#include "kest/loop.h"
#include "kest/properties.h"
#include "kest/service.h"
#include "kest/test_support.h"
#include "kest/trace.h"
#include "routeIO/route_client.h"
#include "routeIO/route_protocol.h"

namespace routeIO {
namespace {

using Lines = std::vector<std::string>;
using testsupport::PumpUntil;
kest::s_socket_addr Ip(char const* dotted) { return kest::s_socket_addr(dotted, 0); }

// Records every callback as a line; channels are named ch1, ch2, ... in the
// order they are first seen, so a line shows which connection it came from.
// A priority p answers (p == 0, p), DelRoute of "unknown" (false, -100).
class cRecordingRouteServer : public IRouteServer {
 public:
  Lines lines;
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
                                       a.GetIPString().c_str(), tag.c_str(), ifname.c_str(), type,
                                       prio));
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
    return {tag != "unknown", tag == "unknown" ? -100 : 0};
  }

 private:
  std::string Name(kest::cChannel* ch) {
    return m_names.emplace(ch, "ch" + std::to_string(m_names.size() + 1)).first->second;
  }
  std::map<kest::cChannel*, std::string> m_names;
};

auto Has(std::string const& text) { return ::testing::Contains(::testing::HasSubstr(text)); }
std::string Text(routeResult r) { return (r.success ? "ok " : "fail ") + std::to_string(r.rc); }

class RouteServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(Path().c_str());  // left over by a killed run
    Set(cRouteServer::kSapProperty, "unix:" + Path());
  }
  void TearDown() override {
    m_server.reset();
    kest::kestProperties().Clear();
    unlink(Path().c_str());
  }
  static std::string Path() {
    return "/tmp/route-server-test-" + std::to_string(getpid()) + ".sock";
  }
  void Set(char const* key, std::string const& value) { kest::kestProperties().Set(key, value); }
  bool Open() {
    m_server = std::make_unique<cRouteServer>(&m_service, &m_fake);
    return m_server->SetReady();
  }
  // A route client blocks, the server needs the loop: the client's step runs
  // on its own thread while this one turns the loop.
  static void Step(std::function<void()> const& clientStep) {
    std::atomic<bool> done{false};
    std::thread t([&] {
      clientStep();
      done = true;
    });
    while (!done) kest::Loop().RunOnce(5);
    t.join();
    kest::Loop().RunUntilIdle();
  }

  kest::cTraceCapture m_traces;
  kest::cService m_service;
  cRecordingRouteServer m_fake;
  std::unique_ptr<cRouteServer> m_server;
};

TEST_F(RouteServerTest, DeliversEachCommandWithItsClientAndAnswersIt) {
  Set(cRouteServer::kSapProperty, "127.0.0.1:0");  // TCP, the default transport of route clients
  ASSERT_TRUE(Open());
  std::string const sap = "127.0.0.1:" + std::to_string(m_server->BoundPort());
  // No user is known on TCP: no limit per user is claimed.
  EXPECT_THAT(m_traces.Messages(), Has(sap + " (loopback only; at most 64 connections, send "));
  cRouteClient a, b;
  Lines answers;
  auto answer = [&](routeResult r) { answers.push_back(Text(r)); };
  std::string error;
  Step([&] { EXPECT_TRUE(a.Connect(sap, 2000, error) && b.Connect(sap, 2000, error)) << error; });
  Step([&] {
    answer(a.SetGateway(Ip("10.0.0.1"), "wired", "eth0", 1, 5));
    answer(a.SetRoute(Ip("10.1.0.0"), Ip("255.255.0.0"), Ip("192.168.1.1"), Ip("0.0.0.0"), "eth1",
                      "a", 0));
    answer(b.DelRoute("unknown"));
    a.Close();
  });
  ASSERT_TRUE(PumpUntil([&] { return m_fake.closed == 1; }));
  Step([&] {
    answer(b.DelGateway("wired"));
    answer(b.DelRoute("b"));
    b.Close();
  });
  ASSERT_TRUE(PumpUntil([&] { return m_fake.closed == 2; }));
  EXPECT_EQ(m_fake.lines, (Lines{"Connected ch1", "Connected ch2",
                                 "SetGateway 10.0.0.1 tag=wired dev eth0 type=1 prio=5",
                                 "SetRoute ch1 10.1.0.0/255.255.0.0 via 192.168.1.1 src 0.0.0.0 "
                                 "dev eth1 tag=a prio=0",
                                 "DelRoute ch2 tag=unknown", "Closed ch1", "DelGateway tag=wired",
                                 "DelRoute ch2 tag=b", "Closed ch2"}));
  EXPECT_EQ(answers, (Lines{"fail 5", "ok 0", "fail -100", "ok 0", "ok 0"}));
}

TEST_F(RouteServerTest, AcceptsOnlyOnceReadyAnswersInOrderAndClientFailuresHaveCodes) {
  m_server = std::make_unique<cRouteServer>(&m_service, &m_fake);
  cRouteClient c;
  std::string error;
  EXPECT_FALSE(c.Connect("unix:" + Path(), 500, error));
  EXPECT_EQ(c.DelRoute("x").rc, routeerr::kNotConnected);
  ASSERT_TRUE(m_server->SetReady());
  Step([&] { EXPECT_TRUE(c.Connect("unix:" + Path(), 300, error)) << error; });
  constexpr std::uint32_t kCount = 1000;
  std::vector<std::int32_t> rcs;
  Step([&] {
    for (std::uint32_t i = 0; i < kCount; ++i)
      ASSERT_EQ(0, c.Post(cSetRouteCmd{kest::s_socket_addr(0x0A000000u + (i << 8), 0),
                                       Ip("255.255.255.0"), Ip("192.168.1.1"), Ip("0.0.0.0"),
                                       "eth1", "r" + std::to_string(i), i}));
    while (c.Outstanding() > 0) rcs.push_back(c.Collect().rc);
  });
  ASSERT_EQ(rcs.size(), kCount);
  for (std::uint32_t i = 0; i < kCount; ++i) ASSERT_EQ(rcs[i], std::int32_t(i)) << "out of order";
  ASSERT_EQ(m_fake.lines.size(), kCount + 1);
  // The loop is not turned: the answer is late. The next call must get its
  // own answer, not the late one.
  EXPECT_EQ(c.DelRoute("late").rc, routeerr::kTimeout);
  routeResult next{};
  Step([&] { next = c.DelRoute("unknown"); });
  EXPECT_EQ(Text(next), "fail -100");
  // Flushed, a posted request is answered with nobody waiting in Collect.
  ASSERT_EQ(c.Post(cDelRouteCmd{"unknown"}), 0);
  ASSERT_EQ(c.Flush(), 0);
  ASSERT_TRUE(PumpUntil([&] {
    pollfd p{c.Fd(), POLLIN, 0};
    return poll(&p, 1, 0) == 1;
  }));
  EXPECT_EQ(Text(c.Collect()), "fail -100");
  ASSERT_EQ(c.Post(cDelGatewayCmd{"p"}), 0);
  EXPECT_EQ(c.DelGateway("q").rc, routeerr::kBusy);
  // The service goes away: a waiting caller learns it at once, and the
  // teardown itself reports nothing to the half-destroyed service.
  m_fake.lines.clear();
  m_server.reset();
  EXPECT_EQ(c.Collect().rc, routeerr::kConnectionLost);
  EXPECT_EQ(m_fake.lines, Lines{});
}

TEST_F(RouteServerTest, AnAccessPointInUseIsTakenOnceItIsFree) {
  std::fclose(std::fopen(Path().c_str(), "w"));  // not a socket: never deleted to make room
  m_server = std::make_unique<cRouteServer>(&m_service, &m_fake);
  EXPECT_FALSE(m_server->SetReady());
  EXPECT_THAT(m_traces.Messages(), Has("route service not listening; trying again in 100 ms"));
  ASSERT_EQ(unlink(Path().c_str()), 0);
  EXPECT_TRUE(PumpUntil([&] { return m_server->IsReady(); }));
}

// Decoding itself is tested with the codec: one body it refuses stands for all.
TEST_F(RouteServerTest, GarbageClosesTheClientWithATraceAndCloseIsDelivered) {
  ASSERT_TRUE(Open());
  std::pair<kesttest::Bytes, char const*> const cases[] = {
      {kesttest::Wire(kest::cFrame::kRequest, 7, routeop::kDelRoute, ""),
       "malformed DelRoute body"},
      {kesttest::Wire(kest::cFrame::kEvent, 7, routeop::kDelRoute, ""), "instead of a request"},
  };
  for (auto const& [bytes, trace] : cases) {
    SCOPED_TRACE(trace);
    m_fake = cRecordingRouteServer();
    m_traces.Clear();
    kesttest::RawClient raw("unix:" + Path());
    ASSERT_EQ(raw.Greet(kService), "accepted");
    raw.Send(bytes);
    EXPECT_TRUE(raw.ClosedByServer());  // without an answer
    ASSERT_TRUE(PumpUntil([&] { return m_fake.closed == 1; }));
    EXPECT_EQ(m_fake.lines, (Lines{"Connected ch1", "Closed ch1"}));  // no command delivered
    EXPECT_THAT(m_traces.Messages(), Has(trace));
  }
}

// The transport enforces the bounds (tested with it); what matters here is
// that each property reaches the listener, as its trace shows, and that a
// bad one keeps the service closed with the property named.
TEST_F(RouteServerTest, EachPropertyBoundsTheListenerABadOneKeepsItClosed) {
  Set(cRouteServer::kSocketModeProperty, "0640");
  Set(cRouteServer::kAllowUidsProperty, "root");
  Set(cRouteServer::kAllowGidsProperty, "7");
  Set(cRouteServer::kMaxClientsProperty, "2");
  Set(cRouteServer::kMaxPerUidProperty, "1");
  Set(cRouteServer::kSendLimitProperty, std::to_string(kest::kMinSendLimit));
  Set(cRouteServer::kFrameTimeoutProperty, "500");
  ASSERT_TRUE(Open());
  EXPECT_THAT(m_traces.Messages(),
              Has(kest::FormatString("listening on unix:%s (mode 0640, uids 0, gids 7; at most 2 "
                                     "connections, 1 per user, send limit %zu bytes, 500 ms to "
                                     "finish a hello or frame)",
                                     Path().c_str(), std::size_t(kest::kMinSendLimit))));
  m_server.reset();
  Set(cRouteServer::kMaxClientsProperty, "many");
  EXPECT_FALSE(Open());
  EXPECT_THAT(m_traces.Messages(), Has("route service not opened on unix:" + Path() +
                                       ": property " + cRouteServer::kMaxClientsProperty + ": "));
}

}  // namespace
}  // namespace routeIO

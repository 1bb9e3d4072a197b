#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <memory>

#include "kest/call_once.h"
#include "kest/hello.h"
#include "kest/message.h"
#include "kest/server.h"
#include "kest/service_client.h"
#include "test_support.h"

namespace {

using kesttest::Listener;
using kesttest::PumpUntil;
using kesttest::RawEnd;
using kesttest::Traced;
using kesttest::Wire;
using Bytes = kesttest::Bytes;
using Strings = std::vector<std::string>;

constexpr kest::cServiceId kSelf{"test", "the test service", 1};
constexpr kest::cServiceId kOther{"other", "the other service", 1};

struct RawClient : kesttest::RawClient {
  using kesttest::RawClient::RawClient;
  std::string Greet(kest::cServiceId const& wanted = kSelf) {
    greeted = true;
    return kesttest::RawClient::Greet(wanted);
  }
  std::string Echo(std::uint32_t id, std::string const& body) {
    EXPECT_EQ(greeted ? "accepted" : Greet(), "accepted");
    Send(Wire(kest::cFrame::kRequest, id, 9, body));
    return Receive(frame) ? kesttest::Describe(frame) : "none";
  }
  bool greeted = false;
};

class TestClient : public kest::cServiceClient {
 public:
  explicit TestClient(std::string ap, kest::cServiceClientWatcher* w = nullptr,
                      kest::cServiceId const& wanted = kSelf)
      : cServiceClient(nullptr, 100, std::move(ap), wanted), watcher(w) {}
  kest::cServiceClientWatcher* watcher;
  Strings log;

 protected:
  void OnConnected() override {
    log.push_back("connected");
    if (watcher) watcher->OnConnect(this);  // as the service does for its clients
  }
  void OnDisconnected() override { log.push_back("disconnected"); }
  void OnEvent(kest::cFrame& f) override { log.push_back("event " + std::to_string(f.op)); }
};

class TransportTest : public ::testing::Test,
                      public kest::IServerHandler,
                      public kest::IChannelHandler {
 protected:
  void OnOpen(kest::cChannel* c) override { log.push_back("open " + c->PeerInfo().ToString("")); }
  void OnFrame(kest::cChannel* c, kest::cFrame& f) override {
    if (!closeOnFrame) return (void)server.Reply(c, f.id, f.op, f.body);
    log.push_back("frame");
    server.Close();
  }
  void OnClose(kest::cChannel* c) override { log.push_back("close " + c->PeerText()); }
  void OnChannelClosed(kest::cChannel*, std::string const& why) override { log.push_back(why); }
  std::string Listen(std::string const& ap) {
    std::string error;
    EXPECT_TRUE(server.Listen(ap, error)) << error;
    return kest::FormatString("127.0.0.1:%u", server.BoundPort());
  }
  bool Connections(std::size_t n) {
    return PumpUntil([&] { return server.Connections() == n; });
  }
  kest::cServer server{nullptr, this, "test", kSelf};
  Strings log;
  bool closeOnFrame = false;
  kest::cTraceCapture traces;
};

// What the socket cannot take at once goes out as the peer reads it; a peer
// that stops reading is dropped once the send limit is reached.
TEST_F(TransportTest, APeerNotReadingIsDroppedAtTheSendLimit) {
  int fds[2], small = 4096;
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  RawEnd peer{fds[1]};
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  fcntl(fds[1], F_SETFL, O_NONBLOCK);
  kest::cChannel channel(fds[0], kest::s_socket_addr(), "peer", this);
  channel.SetSendLimit(32 * 1024);
  kest::cFrame f;
  f.body.Write(std::string(1000, 'x').data(), 1000);
  for (std::uint32_t id = 1; id <= 20; ++id) ASSERT_TRUE(channel.Send((f.id = id, f)));
  for (std::uint32_t id = 1; id <= 20; ++id) {
    ASSERT_TRUE(peer.Receive(peer.frame));
    EXPECT_EQ(peer.frame.id, id);
  }
  int sent = 0;
  for (; sent < 1000 && channel.Send(f); ++sent) kest::Loop().RunUntilIdle();
  EXPECT_LT(sent, 1000);
  EXPECT_FALSE(channel.IsOpen());
  EXPECT_EQ(log.size(), 1u);
  EXPECT_TRUE(Traced(traces, "send limit of 32768 bytes reached"));
}

TEST_F(TransportTest, GarbageClosesOnlyThatConnectionAndFreesItsPlace) {
  kest::cServerLimits limits;
  limits.maxConnections = 3;
  server.SetLimits(limits);
  std::string ap = Listen("127.0.0.1:0");
  RawClient bad(ap), idle(ap), good(ap);
  ASSERT_TRUE(Connections(3));
  RawClient refused(ap);
  EXPECT_EQ(refused.Greet(), "3 connections open, the limit");
  EXPECT_TRUE(refused.ClosedByServer());
  EXPECT_EQ(bad.Echo(7, "hello"), "2 7 9 hello");
  bad.Send({0x07, 0x00, 0x00, 0x00, 0x09});
  EXPECT_TRUE(bad.ClosedByServer());
  EXPECT_EQ(good.Echo(8, "still here"), "2 8 9 still here");
  EXPECT_TRUE(Traced(traces, "closing connection " + bad.Me() + ": bad frame: unknown frame kind"));
  // idle never said hello: the handler never heard of it.
  EXPECT_EQ(log, (Strings{"open " + bad.Me(), "close " + bad.Me(), "open " + good.Me()}));
  EXPECT_EQ(RawClient(ap).Echo(2, "b"), "2 2 9 b");
}

// Who may connect is run end to end with the packaged settings.
TEST_F(TransportTest, AUnixListenerHasItsModeAndLeavesALiveSocketAlone) {
  std::string const path = kest::FormatString("/tmp/kest-server-test-%d.sock", getpid());
  kest::cServerLimits limits;
  limits.socketMode = 0600;
  server.SetLimits(limits);
  Listen("unix:" + path);
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(RawClient("unix:" + path).Echo(3, "hi"), "2 3 9 hi");
  EXPECT_EQ(log, Strings{kest::FormatString("open uid=%u pid=%d", getuid(), getpid())});
  std::string error;
  kest::cServer second{nullptr, this, "test", kSelf};
  EXPECT_FALSE(second.Listen("unix:" + path, error));
  EXPECT_NE(error.find("another server is listening on it"), std::string::npos) << error;
  EXPECT_EQ(RawClient("unix:" + path).Echo(4, "still"), "2 4 9 still");
  server.Close();
  EXPECT_NE(access(path.c_str(), F_OK), 0);  // the socket file goes with the server
}

TEST_F(TransportTest, CloseFromInsideAFrameCallbackClosesEachChannelOnce) {
  std::string ap = Listen("0.0.0.0:0");  // allowed, with a warning
  EXPECT_TRUE(Traced(traces, "not a loopback address"));
  RawClient a(ap), b(ap);
  EXPECT_EQ(a.Greet() + b.Greet(), "acceptedaccepted");
  closeOnFrame = true;
  // Both are ready in the same loop round; the second must not be served once closed.
  a.Send(Wire(kest::cFrame::kRequest, 1, 9, "bye"));
  b.Send(Wire(kest::cFrame::kRequest, 1, 9, "bye"));
  EXPECT_TRUE(a.ClosedByServer() && b.ClosedByServer());
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(log.size(), 5u);  // two opens, one frame, two closes
}

TEST_F(TransportTest, RequestNotConnectedAnsweredLostOrTimedOut) {
  struct Case {
    char const* peer;
    int rc;
    Strings logAfter;  // hooks and events, dispatched from the loop afterwards
    char const* trace;
  } const cases[] = {
      {"answers", 0, {"connected", "event 42"}, "dropping unexpected reply"},
      {"hangs up", kest::clienterr::kConnectionLost, {"connected", "disconnected"}, "request op 9"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.peer);
    Listener listener;
    TestClient client(listener.Ap());
    kest::cSerializeBuffer body, reply;
    ASSERT_TRUE(client.Start());
    RawEnd peer(listener.Accept(nullptr));
    kest::cFrame hello;
    ASSERT_TRUE(peer.Receive(hello));
    EXPECT_EQ(client.Request(9, body, reply), kest::clienterr::kNotConnected);  // no answer yet
    peer.Send(Wire(kest::AcceptFrame(hello.id, kSelf)));
    ASSERT_TRUE(PumpUntil([&] { return client.IsConnected(); }));
    kest::Loop().RunUntilIdle();
    // What the peer does now reaches the client only while it waits inside Request.
    if (c.rc == 0) {
      peer.Send(Wire(kest::cFrame::kEvent, 0, 42, "meanwhile"));
      peer.Send(Wire(kest::cFrame::kReply, 77, 9, "stale"));
      peer.Send(Wire(kest::cFrame::kReply, 2, 9, "pong"));  // the hello was request 1
    }
    if (c.rc == kest::clienterr::kConnectionLost) shutdown(peer.fd, SHUT_RDWR);
    body.Write("ping", 4);
    EXPECT_EQ(client.Request(9, body, reply), c.rc);
    EXPECT_EQ(kesttest::Text(reply), c.rc == 0 ? "pong" : "");
    EXPECT_EQ(client.log, Strings{"connected"});  // nothing ran inside Request
    kest::cFrame req;                             // what the peer got, unless it had hung up
    EXPECT_EQ(peer.Receive(req) ? kesttest::Describe(req) : "", c.rc == 0 ? "1 2 9 ping" : "");
    kest::Loop().RunUntilIdle();
    EXPECT_EQ(client.log, c.logAfter);
    EXPECT_EQ(client.IsConnected(), c.rc == 0);
    EXPECT_TRUE(Traced(traces, c.trace));
  }
  // A one-shot call (routectl's, datactl's) to a peer that never answers ends at its deadline.
  Listener silent;
  kest::cSerializeBuffer body, reply;
  std::string error;
  EXPECT_FALSE(kest::CallOnce(silent.Ap(), kSelf, 50, 9, body, reply, error));
  EXPECT_EQ(error, "no reply from " + silent.Ap() + ": timed out");
}

// Nobody listening or refused by another service: the client backs off to its maximum, one line an
// attempt and not a millisecond early, and a restart of the client waits out the backoff in force.
TEST_F(TransportTest, AClientThatCannotGetInBacksOffOneLineAnAttempt) {
  kest::cManualClock clock;
  kest::Loop().SetClock(&clock);
  std::string const refusing = Listen("127.0.0.1:0");
  std::pair<std::string, std::string> const cases[] = {
      // A port that refuses once that listener is gone.
      {Listener().Ap(), "errno:111/Connection refused"},
      {refusing, refusing + " is the test service, not the other service"},
  };
  for (auto const& [ap, why] : cases) {
    SCOPED_TRACE(ap);
    traces.Clear();
    TestClient client(ap, nullptr, kOther);
    ASSERT_TRUE(client.Start());
    std::size_t tries = 0;
    for (unsigned delay : {100, 200, 400, 800, 1600, 3200, 5000, 5000}) {
      ASSERT_TRUE(PumpUntil([&] { return Traced(traces, "cannot connect to ") == tries + 1; }));
      std::string const last = traces.Messages().back();
      EXPECT_EQ(last.substr(last.find("cannot")),
                kest::FormatString("cannot connect to %s (%s); retrying in %u ms", ap.c_str(),
                                   why.c_str(), delay));
      if (delay == 3200) {
        client.Stop();
        ASSERT_TRUE(client.Start());
      }
      clock.Advance(delay - 1);
      kest::Loop().RunUntilIdle();
      EXPECT_EQ(Traced(traces, "cannot connect to "), ++tries);
      clock.Advance(1);
    }
    EXPECT_EQ(traces.Messages().size(), tries + Traced(traces, "refusing connection from "));
    EXPECT_EQ(client.log, Strings{});
  }
  EXPECT_EQ(log, Strings{});
}

TEST_F(TransportTest, TheWatcherPostsWhenBothAreUpAndALastingConnectionResetsTheBackoff) {
  kest::cManualClock clock;
  kest::Loop().SetClock(&clock);
  struct : kest::cMessageSink {
    Strings got;
    void ProcessMsg(kest::cMsg& msg) override { got.push_back(msg.Name()); }
  } sink;
  kest::cServiceClientWatcher watcher(&sink, "ALL-UP");
  std::string const ap = Listener().Ap();  // refuses until the server listens on it
  TestClient a(ap, &watcher), b(ap, &watcher);
  watcher.Add(&a);
  watcher.Add(&b);
  ASSERT_TRUE(a.Start());
  ASSERT_TRUE(PumpUntil([&] { return Traced(traces, "cannot connect to ") == 1; }));
  Listen(ap);
  clock.Advance(100);
  ASSERT_TRUE(PumpUntil([&] { return a.IsConnected(); }));
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(sink.got, Strings{});
  ASSERT_TRUE(b.Start());
  ASSERT_TRUE(PumpUntil([&] { return b.IsConnected(); }));
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(sink.got, Strings{"ALL-UP"});
  // After a connection that lasted, the backoff starts again from its first step.
  clock.Advance(kest::cServiceClient::kStableMs);
  server.Close();
  ASSERT_TRUE(PumpUntil([&] { return !a.IsConnected(); }));
  EXPECT_TRUE(Traced(traces, ap + " lost (closed by peer); reconnecting in 100 ms"));
}

TEST_F(TransportTest, NothingIsServedBeforeAHelloForThisService) {
  std::string const ap = Listen("127.0.0.1:0");
  Bytes wrongVersion;
  kest::EncodeFrame(kest::HelloFrame(1, kest::cServiceId{"test", "", 2}), wrongVersion);
  std::pair<Bytes, std::string> const cases[] = {
      {Wire(kest::cFrame::kRequest, 1, 9, "do it"),
       "the first frame (kind 1, op 9) is not a hello"},
      {Wire(kest::cFrame::kRequest, 1, 0, std::string(300, 'x')), "malformed hello: service: "},
      {wrongVersion, "protocol version 2 is not supported (only 1)"},
  };
  for (auto const& [first, reason] : cases) {
    RawClient peer(ap);
    peer.Send(first);
    peer.Send(Wire(kest::cFrame::kRequest, 2, 9, "and this"));
    kest::cGreeting g;
    std::string error;
    ASSERT_TRUE(peer.Receive(peer.frame));
    ASSERT_TRUE(kest::DecodeRefusal(peer.frame.body, g, error)) << error;
    EXPECT_EQ(g.service + " " + g.reason.substr(0, reason.size()), "test " + reason);
    EXPECT_TRUE(peer.ClosedByServer());
    EXPECT_TRUE(
        Traced(traces, "refusing connection from " + peer.Me() + " on " + ap + ": " + reason));
  }
  EXPECT_EQ(log, Strings{});  // the handler heard of none of them
}

TEST_F(TransportTest, APeerThatStallsInItsHelloOrInAFrameIsClosedIdleOnesStay) {
  kest::cManualClock clock;
  kest::Loop().SetClock(&clock);
  kest::cServerLimits limits;
  limits.frameTimeoutMs = 1000;
  server.SetLimits(limits);
  std::string const ap = Listen("127.0.0.1:0");
  RawClient silent(ap), dripping(ap), idle(ap);
  EXPECT_EQ(dripping.Greet() + idle.Greet(), "acceptedaccepted");
  Bytes frame = Wire(kest::cFrame::kRequest, 5, 9, "slow");
  dripping.Send(Bytes(frame.begin(), frame.begin() + 6));
  ASSERT_TRUE(Connections(3));
  kest::Loop().RunUntilIdle();
  clock.Advance(999);
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(server.Connections(), 3u);
  clock.Advance(1);
  EXPECT_EQ(silent.Answer(), "its hello did not arrive within 1000 ms");
  EXPECT_EQ(dripping.Answer(), "the rest of a frame did not arrive within 1000 ms");
  EXPECT_TRUE(Traced(traces, "closing connection from " + dripping.Me() + " on " + ap +
                                 ": the rest of a frame did not arrive within 1000 ms"));
  clock.Advance(60000);
  EXPECT_EQ(idle.Echo(6, "still"), "2 6 9 still");
}

// The peer's credentials are those in effect when it connects.
TEST_F(TransportTest, OneUserCannotTakeEverySlot) {
  if (getuid() != 0) GTEST_SKIP() << "needs root to connect as another user";
  std::string const ap = kest::FormatString("unix:/tmp/kest-peruid-test-%d.sock", getpid());
  kest::cServerLimits limits;
  limits.socketMode = 0666;
  limits.maxConnections = 4;
  limits.maxPerUid = 2;
  server.SetLimits(limits);
  Listen(ap);
  ASSERT_EQ(seteuid(65534), 0);
  std::unique_ptr<RawClient> nobody[3];
  for (auto& c : nobody) c = std::make_unique<RawClient>(ap);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(nobody[2]->Answer(), "uid 65534 holds 2 connections, the limit per user");
  EXPECT_EQ(nobody[0]->Greet() + nobody[1]->Greet(), "acceptedaccepted");
  EXPECT_EQ(RawClient(ap).Greet(), "accepted");  // root, while nobody holds its two
}

}  // namespace

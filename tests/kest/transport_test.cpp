#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstring>

#include "kest/message.h"
#include "kest/server.h"
#include "kest/service_client.h"
#include "test_support.h"

namespace {

using kesttest::PumpUntil;
using kesttest::RawEnd;
using kesttest::Traced;
using kesttest::Wire;
using Strings = std::vector<std::string>;

// A peer process stand-in on a plain socket; the server runs in this thread's loop.
struct RawClient : RawEnd {
  explicit RawClient(std::string const& accessPoint) {
    kest::cAccessPoint ap;
    std::string error;
    EXPECT_TRUE(kest::cAccessPoint::Parse(accessPoint, ap, error)) << error;
    sockaddr_storage sa{};
    unsigned len = ap.ToSockaddr(sa);
    fd = socket(sa.ss_family, SOCK_STREAM, 0);
    // Loopback and Unix connects complete in the kernel, before any accept.
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&sa), len), 0) << std::strerror(errno);
    fcntl(fd, F_SETFL, O_NONBLOCK);
  }
  std::string Me() const { return kesttest::LocalAp(fd); }
  std::string Echo(std::uint32_t id, std::string const& body) {
    Send(Wire(kest::cFrame::kRequest, id, 9, body));
    return Receive(frame) ? kesttest::Describe(frame) : "none";
  }
  bool ClosedByServer() { return !Receive(frame) && eof; }
  kest::cFrame frame;
};

class TestClient : public kest::cServiceClient {
 public:
  explicit TestClient(std::string ap, kest::cServiceClientWatcher* w = nullptr)
      : cServiceClient(nullptr, 100, std::move(ap)), watcher(w) {}
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

// A listening socket on a free port (listen() picks one, on every address); the kernel
// completes handshakes before any accept.
struct Listener : RawEnd {
  Listener() : RawEnd(socket(AF_INET, SOCK_STREAM, 0)) { listen(fd, 4); }
  std::string Ap() const { return kesttest::LocalAp(fd); }
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
  bool Connections(std::size_t n) { return PumpUntil([&] { return server.Connections() == n; }); }
  kest::cServer server{nullptr, this, "test"};
  Strings log;
  bool closeOnFrame = false;
  kest::cTraceCapture traces;
};

TEST_F(TransportTest, APeerNotReadingIsDroppedAtTheSendLimit) {
  int fds[2], small = 4096;
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  RawEnd peer{fds[1]};
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  kest::cChannel channel(fds[0], kest::s_socket_addr(), "peer", this);
  channel.SetSendLimit(32 * 1024);
  kest::cFrame f;
  f.body.Write(std::string(1000, 'x').data(), 1000);
  int sent = 0;
  for (; sent < 1000 && channel.Send(f); ++sent) kest::Loop().RunUntilIdle();
  EXPECT_LT(sent, 1000);
  EXPECT_FALSE(channel.IsOpen());
  EXPECT_EQ(log.size(), 1u);
  EXPECT_TRUE(Traced(traces, "closing connection peer: peer is not reading: "));
  EXPECT_TRUE(Traced(traces, "send limit of 32768 bytes reached"));
}

TEST_F(TransportTest, GarbageOrACutFrameClosesOnlyThatConnectionAndFreesItsPlace) {
  kest::cServerLimits limits;
  limits.maxConnections = 3;
  server.SetLimits(limits);
  std::string ap = Listen("127.0.0.1:0");
  RawClient bad(ap), cut(ap), good(ap);
  ASSERT_TRUE(Connections(3));
  RawClient refused(ap);
  EXPECT_TRUE(refused.ClosedByServer());
  EXPECT_TRUE(Traced(traces, "refusing connection from " + refused.Me() + " on " + ap +
                                 ": 3 connections open, the limit"));
  EXPECT_EQ(bad.Echo(7, "hello"), "2 7 9 hello");
  bad.Send({0x07, 0x00, 0x00, 0x00, 0x09});
  EXPECT_TRUE(bad.ClosedByServer());
  cut.Send({0x20, 0x00, 0x00, 0x00, 0x01, 0x02});
  shutdown(cut.fd, SHUT_WR);
  EXPECT_TRUE(cut.ClosedByServer());
  EXPECT_EQ(good.Echo(8, "still here"), "2 8 9 still here");
  EXPECT_TRUE(Traced(traces, "closing connection " + bad.Me() + ": bad frame: unknown frame kind"));
  EXPECT_TRUE(Traced(traces, "closing connection " + cut.Me() +
                                 ": truncated frame: connection closed with 6 bytes"));
  EXPECT_EQ(log, (Strings{"open " + bad.Me(), "open " + cut.Me(), "open " + good.Me(),
                          "close " + bad.Me(), "close " + cut.Me()}));
  EXPECT_EQ(RawClient(ap).Echo(2, "b"), "2 2 9 b");
}

TEST_F(TransportTest, UnixSocketModeAndUidAllowList) {
  std::string const path = kest::FormatString("/tmp/kest-server-test-%d.sock", getpid());
  kest::cServerLimits limits;
  limits.socketMode = 0600;
  limits.allowUids = {getuid() + 1};
  server.SetLimits(limits);
  Listen("unix:" + path);
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_TRUE(RawClient("unix:" + path).ClosedByServer());
  std::string const who = kest::FormatString("uid=%u pid=%d", getuid(), getpid());
  EXPECT_TRUE(Traced(traces, "refusing connection from " + who + " on unix:" + path + ": uid "));
  server.Close();
  limits.allowUids = {getuid()};
  server.SetLimits(limits);
  Listen("unix:" + path);
  EXPECT_EQ(RawClient("unix:" + path).Echo(3, "hi"), "2 3 9 hi");
  EXPECT_EQ(log, Strings{"open " + who});
  server.Close();
  EXPECT_NE(access(path.c_str(), F_OK), 0);  // the socket file goes with the server

  // A file that is not a socket is never deleted to make room.
  std::fclose(std::fopen(path.c_str(), "w"));
  std::string error;
  EXPECT_FALSE(server.Listen("unix:" + path, error));
  EXPECT_NE(error.find("not a socket"), std::string::npos) << error;
  EXPECT_EQ(unlink(path.c_str()), 0);
}

TEST_F(TransportTest, CloseFromInsideAFrameCallbackClosesEachChannelOnce) {
  std::string ap = Listen("0.0.0.0:0");  // allowed, with a warning
  EXPECT_TRUE(Traced(traces, "listening on 0.0.0.0:" + std::to_string(server.BoundPort())));
  EXPECT_TRUE(Traced(traces, "not a loopback address"));
  RawClient a(ap), b(ap);
  ASSERT_TRUE(Connections(2));
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
      {"stays silent", kest::clienterr::kTimeout, {"connected", "disconnected"},
       "got no reply within 100 ms; dropping the connection"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.peer);
    Listener listener;
    TestClient client(listener.Ap());
    kest::cSerializeBuffer body, reply;
    EXPECT_EQ(client.Request(9, body, reply), kest::clienterr::kNotConnected);
    ASSERT_TRUE(client.Start());
    EXPECT_EQ(client.Request(9, body, reply), kest::clienterr::kNotConnected);  // still connecting
    ASSERT_TRUE(PumpUntil([&] { return client.IsConnected(); }));
    kest::Loop().RunUntilIdle();
    // What the peer does now reaches the client only while it waits inside Request.
    RawEnd peer(accept4(listener.fd, nullptr, nullptr, SOCK_NONBLOCK));
    if (c.rc == 0) {
      peer.Send(Wire(kest::cFrame::kEvent, 0, 42, "meanwhile"));
      peer.Send(Wire(kest::cFrame::kReply, 77, 9, "stale"));
      peer.Send(Wire(kest::cFrame::kReply, 1, 9, "pong"));  // a new client's first request is 1
    }
    if (c.rc == kest::clienterr::kConnectionLost) shutdown(peer.fd, SHUT_RDWR);
    body.Write("ping", 4);
    EXPECT_EQ(client.Request(9, body, reply), c.rc);
    EXPECT_EQ(kesttest::Text(reply), c.rc == 0 ? "pong" : "");
    EXPECT_EQ(client.log, Strings{"connected"});  // nothing ran inside Request
    kest::cFrame req;  // what the peer got, unless it had hung up
    EXPECT_EQ(peer.Receive(req) ? kesttest::Describe(req) : "",
              c.rc == kest::clienterr::kConnectionLost ? "" : "1 1 9 ping");
    kest::Loop().RunUntilIdle();
    EXPECT_EQ(client.log, c.logAfter);
    EXPECT_EQ(client.IsConnected(), c.rc == 0);
    EXPECT_TRUE(Traced(traces, c.trace));
  }
}

TEST_F(TransportTest, ReconnectsWithBackoffAndTheWatcherPostsWhenBothAreUp) {
  kest::cManualClock clock;
  kest::Loop().SetClock(&clock);
  std::string const ap = Listener().Ap();  // a port that refuses once that listener is gone
  struct : kest::cMessageSink {
    Strings got;
    void ProcessMsg(kest::cMsg& msg) override { got.push_back(msg.Name()); }
  } sink;
  kest::cServiceClientWatcher watcher(&sink, "ALL-UP");
  TestClient a(ap, &watcher), b(ap, &watcher);
  watcher.Add(&a);
  watcher.Add(&b);
  ASSERT_TRUE(a.Start());
  std::string const failed = "cannot connect to " + ap;
  std::size_t tries = 0;
  for (unsigned delay : {100, 200, 400, 800, 1600, 3200, 5000, 5000}) {
    ASSERT_TRUE(PumpUntil([&] { return Traced(traces, failed) == tries + 1; })) << delay;
    std::string const last = traces.Messages().back();
    EXPECT_NE(last.find(kest::FormatString("retrying in %u ms", delay)), std::string::npos) << last;
    clock.Advance(delay - 1);
    kest::Loop().RunUntilIdle();
    EXPECT_EQ(Traced(traces, failed), ++tries);  // not a millisecond early
    clock.Advance(1);
  }

  auto bothUp = [&] { return PumpUntil([&] { return a.IsConnected() && b.IsConnected(); }); };
  Listen(ap);
  ASSERT_TRUE(b.Start());
  ASSERT_TRUE(bothUp());
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(sink.got, Strings{"ALL-UP"});

  // After a success the backoff starts again from its first step.
  server.Close();
  ASSERT_TRUE(PumpUntil([&] { return !a.IsConnected() && !b.IsConnected(); }));
  EXPECT_EQ(Traced(traces, ap + " lost (closed by peer); reconnecting in 100 ms"), 2u);
  Listen(ap);
  clock.Advance(100);
  ASSERT_TRUE(bothUp());
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(a.log, (Strings{"connected", "disconnected", "connected"}));
  EXPECT_EQ(sink.got, (Strings{"ALL-UP", "ALL-UP"}));
}

}  // namespace

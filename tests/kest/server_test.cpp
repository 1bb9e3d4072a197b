#include "kest/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kest/format.h"
#include "kest/loop.h"
#include "kest/trace.h"

namespace {

bool PumpUntil(std::function<bool()> const& done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    kest::Loop().RunOnce(5);
  }
  return true;
}

// A peer process stand-in on a plain socket; the server runs in this thread's loop.
struct RawClient {
  int fd = -1;
  kest::cFrameReader reader;
  bool eof = false;

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
  ~RawClient() { close(fd); }
  std::string LocalText() const {
    sockaddr_in in{};
    socklen_t len = sizeof in;
    getsockname(fd, reinterpret_cast<sockaddr*>(&in), &len);
    return kest::FormatString("127.0.0.1:%u", ntohs(in.sin_port));
  }
  void SendBytes(std::vector<std::uint8_t> const& bytes) {
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void Request(std::uint32_t id, std::string const& body) {
    kest::cFrame f;
    f.kind = kest::cFrame::kRequest;
    f.id = id;
    f.op = 9;
    f.body.Write(body.data(), body.size());
    std::vector<std::uint8_t> out;
    kest::EncodeFrame(f, out);
    SendBytes(out);
  }
  // Pumps the server's loop until a frame or the end of the connection arrives.
  bool Receive(kest::cFrame& frame) {
    std::string error;
    bool got = false;
    PumpUntil([&] {
      std::uint8_t buf[4096];
      ssize_t n;
      while ((n = read(fd, buf, sizeof buf)) > 0) reader.Feed(buf, static_cast<std::size_t>(n));
      if (n == 0) eof = true;
      got = reader.Next(frame, error) == kest::cFrameReader::kFrame;
      return got || eof;
    });
    return got;
  }
  std::string Echo(std::uint32_t id, std::string const& body) {
    Request(id, body);
    kest::cFrame f;
    if (!Receive(f)) return "no reply";
    return kest::FormatString("%u %u ", f.id, f.op) +
           std::string(reinterpret_cast<char const*>(f.body.Data()), f.body.Size());
  }
  bool ClosedByServer() {
    kest::cFrame f;
    return !Receive(f) && eof;
  }
};

class ServerTest : public ::testing::Test, public kest::IServerHandler {
 protected:
  void SetUp() override { kest::ResetLoop(); }
  void TearDown() override {
    server.Close();
    kest::ResetLoop();
  }
  void OnOpen(kest::cChannel* c) override { log.push_back("open " + c->PeerInfo().ToString("")); }
  void OnFrame(kest::cChannel* c, kest::cFrame& f) override {
    if (closeServerOnFrame) {
      server.Close();
      return;
    }
    server.Reply(c, f.id, f.op, f.body);
  }
  void OnClose(kest::cChannel* c) override { log.push_back("close " + c->PeerText()); }
  std::string Listen(std::string const& ap) {
    std::string error;
    EXPECT_TRUE(server.Listen(ap, error)) << error;
    return kest::FormatString("127.0.0.1:%u", server.BoundPort());
  }
  bool Traced(std::string const& text) {
    for (auto const& m : traces.Messages()) {
      if (m.find(text) != std::string::npos) return true;
    }
    return false;
  }

  kest::cServer server{nullptr, this, "test"};
  std::vector<std::string> log;
  bool closeServerOnFrame = false;
  kest::cTraceCapture traces;
};

TEST_F(ServerTest, GarbageClosesOnlyThatConnection) {
  std::string ap = Listen("127.0.0.1:0");
  RawClient bad(ap), good(ap);
  ASSERT_TRUE(PumpUntil([&] { return server.Connections() == 2; }));
  EXPECT_EQ(bad.Echo(7, "hello"), "7 9 hello");

  bad.SendBytes({0x07, 0x00, 0x00, 0x00, 0x09});
  EXPECT_TRUE(bad.ClosedByServer());
  EXPECT_TRUE(
      Traced("closing connection " + bad.LocalText() + ": bad frame: unknown frame kind 9"));

  EXPECT_EQ(good.Echo(8, "still here"), "8 9 still here");
  EXPECT_EQ(log, (std::vector<std::string>{"open " + bad.LocalText(), "open " + good.LocalText(),
                                           "close " + bad.LocalText()}));
}

TEST_F(ServerTest, ConnectionBeyondTheLimitIsRefused) {
  kest::cServerLimits limits;
  limits.maxConnections = 1;
  server.SetLimits(limits);
  std::string ap = Listen("127.0.0.1:0");
  {
    RawClient first(ap);
    ASSERT_TRUE(PumpUntil([&] { return server.Connections() == 1; }));
    RawClient second(ap);
    EXPECT_TRUE(second.ClosedByServer());
    EXPECT_TRUE(Traced("refusing connection from " + second.LocalText() + " on " + ap +
                       ": 1 connections open, the limit"));
    EXPECT_EQ(first.Echo(1, "a"), "1 9 a");
  }
  ASSERT_TRUE(PumpUntil([&] { return server.Connections() == 0; }));
  RawClient third(ap);
  EXPECT_EQ(third.Echo(2, "b"), "2 9 b");
}

TEST_F(ServerTest, ListenTracesWhereAndWarnsOffLoopback) {
  struct Case {
    char const* ap;
    bool warns;
  };
  for (Case c : {Case{"127.0.0.1:0", false}, Case{"0.0.0.0:0", true}}) {
    SCOPED_TRACE(c.ap);
    traces.Clear();
    std::string error;
    ASSERT_TRUE(server.Listen(c.ap, error)) << error;
    std::string where =
        std::string(c.ap).substr(0, std::strlen(c.ap) - 1) + std::to_string(server.BoundPort());
    ASSERT_EQ(traces.Messages().size(), 1u);
    EXPECT_EQ(traces.Messages()[0].rfind("listening on " + where, 0), 0u) << traces.Messages()[0];
    EXPECT_EQ(Traced("not a loopback address"), c.warns);
    server.Close();
  }
  std::string error;
  EXPECT_FALSE(server.Listen("127.0.0.1:99999", error));
  EXPECT_NE(error.find("\"127.0.0.1:99999\""), std::string::npos) << error;
  EXPECT_FALSE(server.Listening());
}

TEST_F(ServerTest, UnixSocketReplacesStaleFileAndFiltersByUid) {
  std::string path = kest::FormatString("/tmp/kest-server-test-%d.sock", getpid());
  {
    // A socket file left behind by a server that died.
    int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    std::strcpy(un.sun_path, path.c_str());
    ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&un), sizeof un), 0);
    close(stale);
  }
  kest::cServerLimits limits;
  limits.socketMode = 0600;
  limits.allowUids = {getuid() + 1};
  server.SetLimits(limits);
  Listen("unix:" + path);
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  {
    RawClient refused("unix:" + path);
    EXPECT_TRUE(refused.ClosedByServer());
    EXPECT_TRUE(
        Traced(kest::FormatString("refusing connection from uid=%u pid=%d on unix:%s: uid %u",
                                  getuid(), getpid(), path.c_str(), getuid())));
  }
  server.Close();
  limits.allowUids = {getuid()};
  server.SetLimits(limits);
  Listen("unix:" + path);
  RawClient allowed("unix:" + path);
  EXPECT_EQ(allowed.Echo(3, "hi"), "3 9 hi");
  EXPECT_EQ(log,
            std::vector<std::string>{kest::FormatString("open uid=%u pid=%d", getuid(), getpid())});
  server.Close();
  EXPECT_NE(access(path.c_str(), F_OK), 0);  // the socket file goes with the server

  // A file that is not a socket is never deleted to make room.
  FILE* f = std::fopen(path.c_str(), "w");
  std::fclose(f);
  std::string error;
  EXPECT_FALSE(server.Listen("unix:" + path, error));
  EXPECT_NE(error.find("not a socket"), std::string::npos) << error;
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  unlink(path.c_str());
}

TEST_F(ServerTest, CloseFromInsideAFrameCallbackClosesEachChannelOnce) {
  std::string ap = Listen("127.0.0.1:0");
  RawClient a(ap), b(ap);
  ASSERT_TRUE(PumpUntil([&] { return server.Connections() == 2; }));
  closeServerOnFrame = true;
  a.Request(1, "bye");
  EXPECT_TRUE(a.ClosedByServer());
  EXPECT_TRUE(b.ClosedByServer());
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(log.size(), 4u);  // two opens, two closes
  EXPECT_FALSE(server.Listening());
}

}  // namespace

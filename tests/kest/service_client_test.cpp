#include "kest/service_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kest/format.h"
#include "kest/loop.h"
#include "kest/server.h"
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

class TestClient : public kest::cServiceClient {
 public:
  using cServiceClient::cServiceClient;
  std::vector<std::string> log;

 protected:
  void OnConnected() override { log.push_back("connected"); }
  void OnDisconnected() override { log.push_back("disconnected"); }
  void OnEvent(kest::cFrame& f) override { log.push_back("event " + std::to_string(f.op)); }
};

// A service answering from its own thread, since Request blocks this one.
// Without a script it never even accepts: the kernel completes the
// handshake and nothing is ever answered.
class ThreadPeer {
 public:
  ThreadPeer() {
    m_listen = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(m_listen, reinterpret_cast<sockaddr*>(&in), sizeof in);
    listen(m_listen, 4);
    socklen_t len = sizeof in;
    getsockname(m_listen, reinterpret_cast<sockaddr*>(&in), &len);
    m_port = ntohs(in.sin_port);
  }
  ~ThreadPeer() {
    if (m_thread.joinable()) m_thread.join();
    close(m_listen);
  }
  std::string AccessPoint() const { return kest::FormatString("127.0.0.1:%u", m_port); }
  void Run(std::function<void(ThreadPeer&)> script) {
    m_thread = std::thread([this, script] {
      m_conn = accept(m_listen, nullptr, nullptr);
      script(*this);
      close(m_conn);
    });
  }
  bool Read(kest::cFrame& f) {
    std::string error;
    while (m_reader.Next(f, error) != kest::cFrameReader::kFrame) {
      std::uint8_t buf[512];
      ssize_t n = read(m_conn, buf, sizeof buf);
      if (n <= 0) return false;
      m_reader.Feed(buf, static_cast<std::size_t>(n));
    }
    return true;
  }
  void Write(std::uint8_t kind, std::uint32_t id, std::uint16_t op, std::string const& body) {
    kest::cFrame f;
    f.kind = kind;
    f.id = id;
    f.op = op;
    f.body.Write(body.data(), body.size());
    std::vector<std::uint8_t> out;
    kest::EncodeFrame(f, out);
    ssize_t n = write(m_conn, out.data(), out.size());
    (void)n;
  }

 private:
  int m_listen = -1;
  int m_conn = -1;
  std::uint16_t m_port = 0;
  std::thread m_thread;
  kest::cFrameReader m_reader;
};

class ServiceClientTest : public ::testing::Test {
 protected:
  void SetUp() override { kest::ResetLoop(); }
  void TearDown() override { kest::ResetLoop(); }
  bool Traced(std::string const& text) {
    for (auto const& m : traces.Messages()) {
      if (m.find(text) != std::string::npos) return true;
    }
    return false;
  }
  std::size_t Count(std::string const& text) {
    std::size_t n = 0;
    for (auto const& m : traces.Messages()) n += m.find(text) != std::string::npos;
    return n;
  }
  kest::cTraceCapture traces;
};

std::string Text(kest::cSerializeBuffer const& b) {
  return std::string(reinterpret_cast<char const*>(b.Data()), b.Size());
}

TEST_F(ServiceClientTest, MalformedAccessPointIsRefusedAtStart) {
  TestClient client(nullptr, 100, "127.0.0.1");
  EXPECT_FALSE(client.Start());
  EXPECT_TRUE(Traced("service client cannot start: malformed access point \"127.0.0.1\""));
  EXPECT_EQ(client.AccessPoint(), "127.0.0.1");
}

TEST_F(ServiceClientTest, RequestWhileNotConnectedFailsAtOnce) {
  TestClient client(nullptr, 60000, "127.0.0.1:1");
  kest::cSerializeBuffer reply;
  EXPECT_EQ(client.Request(1, kest::cSerializeBuffer(), reply), kest::clienterr::kNotConnected);
  ASSERT_TRUE(client.Start());
  EXPECT_EQ(client.Request(1, kest::cSerializeBuffer(), reply), kest::clienterr::kNotConnected);
  EXPECT_STREQ(kest::clienterr::Name(kest::clienterr::kNotConnected), "not connected");
}

TEST_F(ServiceClientTest, RequestOutcomes) {
  struct Case {
    char const* name;
    std::function<void(ThreadPeer&)> script;  // null: the peer never answers
    int rc;
    char const* reply;
    std::vector<std::string> logAfter;  // hooks and events, dispatched from the loop later
    char const* trace;
  };
  Case cases[] = {
      {"answered",
       [](ThreadPeer& p) {
         kest::cFrame req;
         if (!p.Read(req)) return;
         p.Write(kest::cFrame::kEvent, 0, 42, "meanwhile");
         p.Write(kest::cFrame::kReply, req.id + 100, req.op, "stale");
         p.Write(kest::cFrame::kReply, req.id, req.op, "pong:" + Text(req.body));
         p.Read(req);  // until the client goes
       },
       0,
       "pong:ping",
       {"connected", "event 42"},
       "dropping unexpected reply"},
      {"lost",
       [](ThreadPeer& p) {
         kest::cFrame req;
         p.Read(req);
       },
       kest::clienterr::kConnectionLost,
       "",
       {"connected", "disconnected"},
       "request op 9 to 127.0.0.1:"},
      {"silent",
       nullptr,
       kest::clienterr::kTimeout,
       "",
       {"connected", "disconnected"},
       "got no reply within 100 ms; dropping the connection"},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    ThreadPeer peer;
    TestClient client(nullptr, 100, peer.AccessPoint());
    ASSERT_TRUE(client.Start());
    if (c.script) peer.Run(c.script);
    ASSERT_TRUE(PumpUntil([&] { return client.IsConnected(); }));
    kest::Loop().RunUntilIdle();
    ASSERT_EQ(client.log, std::vector<std::string>{"connected"});

    kest::cSerializeBuffer body, reply;
    body.Write("ping", 4);
    EXPECT_EQ(client.Request(9, body, reply), c.rc);
    EXPECT_EQ(Text(reply), c.reply);
    EXPECT_EQ(client.log, std::vector<std::string>{"connected"});  // nothing ran inside Request
    kest::Loop().RunUntilIdle();
    EXPECT_EQ(client.log, c.logAfter);
    EXPECT_EQ(client.IsConnected(), c.rc == 0);
    EXPECT_TRUE(Traced(c.trace));
    client.Stop();
  }
}

TEST_F(ServiceClientTest, ReconnectsWithBackoffAndResetsItAfterSuccess) {
  kest::cManualClock clock;
  kest::Loop().SetClock(&clock);
  std::string ap;
  {
    ThreadPeer closed;  // a port that refuses once this peer is gone
    ap = closed.AccessPoint();
  }
  TestClient client(nullptr, 100, ap);
  ASSERT_TRUE(client.Start());
  std::string const failed = "cannot connect to " + ap;
  unsigned const delays[] = {100, 200, 400, 800, 1600, 3200, 5000, 5000};
  for (std::size_t i = 0; i < std::size(delays); ++i) {
    SCOPED_TRACE(delays[i]);
    ASSERT_TRUE(PumpUntil([&] { return Count(failed) == i + 1; }));
    EXPECT_NE(traces.Messages().back().find(kest::FormatString("retrying in %u ms", delays[i])),
              std::string::npos)
        << traces.Messages().back();
    clock.Advance(delays[i] - 1);
    kest::Loop().RunUntilIdle();
    EXPECT_EQ(Count(failed), i + 1);
    clock.Advance(1);
  }

  struct : kest::IServerHandler {
    void OnOpen(kest::cChannel*) override {}
    void OnFrame(kest::cChannel*, kest::cFrame&) override {}
    void OnClose(kest::cChannel*) override {}
  } handler;
  kest::cServer server(nullptr, &handler, "test");
  std::string error;
  ASSERT_TRUE(server.Listen(ap, error)) << error;
  clock.Advance(5000);
  ASSERT_TRUE(PumpUntil([&] { return client.IsConnected(); }));

  server.Close();
  ASSERT_TRUE(PumpUntil([&] { return !client.IsConnected(); }));
  EXPECT_TRUE(Traced("connection to " + ap + " lost (closed by peer); reconnecting in 100 ms"));
  ASSERT_TRUE(server.Listen(ap, error)) << error;
  clock.Advance(100);
  ASSERT_TRUE(PumpUntil([&] { return client.IsConnected(); }));
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(client.log, (std::vector<std::string>{"connected", "disconnected", "connected"}));
}

}  // namespace

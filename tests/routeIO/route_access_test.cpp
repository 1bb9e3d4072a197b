// Access control and bounds of the route service as its properties set
// them, seen by route clients on a Unix socket.
#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kest/format.h"
#include "kest/loop.h"
#include "kest/properties.h"
#include "kest/service.h"
#include "kest/trace.h"
#include "routeIO/route_client.h"
#include "routeIO/route_protocol.h"
#include "routeIO/route_server.h"

namespace routeIO {
namespace {

constexpr unsigned kNobody = 65534;  // uid and gid of the other local user

class cCountingRouteServer : public IRouteServer {
 public:
  int connected = 0;
  int closed = 0;
  int commands = 0;

  void OnClientConnected(cRouteServer*, kest::cChannel*) override { ++connected; }
  void OnClientClosed(cRouteServer*, kest::cChannel*) override { ++closed; }
  routeResult SetGateway(kest::s_socket_addr const&, std::string const&, std::string const&,
                         std::uint32_t, std::uint32_t) override {
    return Count();
  }
  routeResult SetRoute(kest::cChannel*, kest::s_socket_addr const&, kest::s_socket_addr const&,
                       kest::s_socket_addr const&, kest::s_socket_addr const&, std::string const&,
                       std::string const&, std::uint32_t) override {
    return Count();
  }
  routeResult DelGateway(std::string const&) override { return Count(); }
  routeResult DelRoute(kest::cChannel*, std::string const&) override { return Count(); }

 private:
  routeResult Count() {
    ++commands;
    return {true, 0};
  }
};

// A route client on a plain non-blocking socket, so the test decides
// whether it reads its answers. The server runs in this thread's loop.
class cRawClient {
 public:
  explicit cRawClient(std::string const& path) {
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    std::snprintf(un.sun_path, sizeof un.sun_path, "%s", path.c_str());
    // A Unix connect completes in the kernel, before the server accepts.
    EXPECT_EQ(connect(m_fd, reinterpret_cast<sockaddr*>(&un), sizeof un), 0) << strerror(errno);
    fcntl(m_fd, F_SETFL, O_NONBLOCK);
  }
  ~cRawClient() { close(m_fd); }
  // Queues count DelGateway requests and writes as much as the socket takes.
  void Send(int count) {
    for (int i = 0; i < count; ++i) {
      kest::cFrame f;
      f.kind = kest::cFrame::kRequest;
      f.id = ++m_id;
      f.op = routeop::kDelGateway;
      EncodeCommand(cDelGatewayCmd{"t"}, f.body);
      kest::EncodeFrame(f, m_out);
    }
    ssize_t n = send(m_fd, m_out.data(), m_out.size(), MSG_NOSIGNAL);
    if (n > 0) m_out.erase(m_out.begin(), m_out.begin() + n);
  }
  // Takes what has arrived; answers counted, eof set at the end of the connection.
  void Read() {
    std::uint8_t buf[4096];
    ssize_t n;
    while ((n = recv(m_fd, buf, sizeof buf, 0)) > 0) {
      m_reader.Feed(buf, static_cast<std::size_t>(n));
    }
    if (n == 0) eof = true;
    kest::cFrame f;
    std::string error;
    while (m_reader.Next(f, error) == kest::cFrameReader::kFrame) ++answers;
  }

  int answers = 0;
  bool eof = false;

 private:
  int m_fd = -1;
  std::uint32_t m_id = 0;
  std::vector<std::uint8_t> m_out;  // requests not yet taken by the socket
  kest::cFrameReader m_reader;
};

class RouteAccessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kest::ResetLoop();
    char tmpl[] = "/tmp/route-access-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    m_dir = tmpl;
    chmod(m_dir.c_str(), 0755);  // the other local user must reach the socket
    Set(cRouteServer::kSapProperty, "unix:" + Path());
  }
  void TearDown() override {
    m_server.reset();
    kest::kestProperties().Clear();
    unlink(Path().c_str());
    rmdir(m_dir.c_str());
  }

  std::string Path() const { return m_dir + "/route.sock"; }
  void Set(char const* key, std::string const& value) { kest::kestProperties().Set(key, value); }
  bool Open() {
    m_server = std::make_unique<cRouteServer>(&m_service, &m_fake);
    return m_server->SetReady();
  }
  bool PumpUntil(std::function<bool()> const& done) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done() && std::chrono::steady_clock::now() < deadline) kest::Loop().RunOnce(5);
    return done();
  }
  bool Traced(std::string const& text) const {
    for (auto const& m : m_traces.Messages()) {
      if (m.find(text) != std::string::npos) return true;
    }
    return false;
  }
  std::string Traces() const {
    std::string all;
    for (auto const& m : m_traces.Messages()) all += m + "\n";
    return all;
  }

  // A route client in a child process, as the other local user when asked;
  // it sends one command. Collect() gives its outcome.
  pid_t StartClient(bool asNobody) {
    std::string const sap = "unix:" + Path();
    pid_t pid = fork();
    if (pid != 0) return pid;
    if (asNobody && (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0))
      _exit(3);
    cRouteClient c;
    std::string error;
    if (!c.Connect(sap, 2000, error)) _exit(2);
    _exit(c.DelGateway("child").success ? 0 : 1);
  }
  // Turns the loop (which serves the child) until the child ends.
  std::string Collect(pid_t pid) {
    int status = 0;
    bool ended = false;
    if (!PumpUntil([&] { return ended = ended || waitpid(pid, &status, WNOHANG) == pid; })) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return "hung";
    }
    static char const* const kOutcomes[] = {"served", "closed without an answer",
                                            "cannot connect", "cannot change user"};
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return code >= 0 && code < 4 ? kOutcomes[code] : "died";
  }

  std::string m_dir;
  kest::cTraceCapture m_traces;
  kest::cService m_service;
  cCountingRouteServer m_fake;
  std::unique_ptr<cRouteServer> m_server;
};

TEST_F(RouteAccessTest, ClientBeyondMaxClientsIsRefusedAndItsPlaceFreesOnClose) {
  Set(cRouteServer::kMaxClientsProperty, "1");
  ASSERT_TRUE(Open());
  EXPECT_TRUE(Traced("listening on unix:" + Path() +
                     " (mode 0660, any user the mode lets in; at most 1 connections, send limit "
                     "1048576 bytes)"))
      << Traces();
  auto first = std::make_unique<cRawClient>(Path());
  ASSERT_TRUE(PumpUntil([&] { return m_fake.connected == 1; }));
  cRawClient second(Path());
  ASSERT_TRUE(PumpUntil([&] {
    second.Read();
    return second.eof;
  }));
  EXPECT_TRUE(Traced(kest::FormatString("refusing connection from uid=%u pid=%d on unix:%s: 1 "
                                        "connections open, the limit",
                                        getuid(), getpid(), Path().c_str())))
      << Traces();
  first->Send(1);
  EXPECT_TRUE(PumpUntil([&] {
    first->Read();
    return first->answers == 1;
  }));

  first.reset();
  ASSERT_TRUE(PumpUntil([&] { return m_fake.closed == 1; }));
  cRawClient third(Path());
  third.Send(1);
  EXPECT_TRUE(PumpUntil([&] {
    third.Read();
    return third.answers == 1;
  }));
  EXPECT_EQ(m_fake.connected, 2);  // the refused one never reached the service
}

TEST_F(RouteAccessTest, ClientThatPipelinesWithoutReadingIsDisconnectedOthersAreServed) {
  Set(cRouteServer::kSendLimitProperty, std::to_string(kest::kMinSendLimit));
  ASSERT_TRUE(Open());
  cRawClient greedy(Path()), polite(Path());
  ASSERT_TRUE(PumpUntil([&] {
    greedy.Send(500);
    return m_fake.closed == 1;
  })) << Traces();
  EXPECT_TRUE(Traced(kest::FormatString("closing connection uid=%u pid=%d: peer is not reading",
                                        getuid(), getpid())))
      << Traces();
  EXPECT_TRUE(Traced("send limit of 65540 bytes reached")) << Traces();
  EXPECT_GT(m_fake.commands, 1000);  // it was served until then

  polite.Send(3);
  EXPECT_TRUE(PumpUntil([&] {
    polite.Read();
    return polite.answers == 3;
  }));
  EXPECT_EQ(m_fake.closed, 1);
}

TEST_F(RouteAccessTest, MalformedPropertyKeepsTheServiceClosed) {
  struct Case {
    char const* key;
    char const* value;
    char const* traced;
  } const cases[] = {
      {cRouteServer::kSocketModeProperty, "0999", "bad socket mode \"0999\""},
      {cRouteServer::kAllowUidsProperty, "0,nosuchuser", "unknown user \"nosuchuser\""},
      {cRouteServer::kAllowGidsProperty, "0,,7", "empty entry in the group list"},
      {cRouteServer::kMaxClientsProperty, "0", "bad number \"0\""},
      {cRouteServer::kSendLimitProperty, "4096", "bad number \"4096\" (expected a whole "
                                                 "number from 65540"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.key);
    m_traces.Clear();
    kest::kestProperties().Clear();
    Set(cRouteServer::kSapProperty, "unix:" + Path());
    Set(c.key, c.value);
    EXPECT_FALSE(Open());
    EXPECT_FALSE(m_server->IsReady());
    EXPECT_TRUE(Traced(std::string("route service not opened on unix:") + Path() +
                       ": property " + c.key + ": " + c.traced))
        << Traces();
    EXPECT_NE(access(Path().c_str(), F_OK), 0);
  }
  // Over TCP an allow-list could not be enforced: closed rather than open to anyone.
  kest::kestProperties().Clear();
  Set(cRouteServer::kSapProperty, "127.0.0.1:0");
  Set(cRouteServer::kAllowUidsProperty, "0");
  EXPECT_FALSE(Open());
  EXPECT_TRUE(Traced("peer allow-lists need a Unix socket")) << Traces();
  kest::kestProperties().Clear();
  Set(cRouteServer::kSapProperty, "127.0.0.1:0");
  ASSERT_TRUE(Open());
  EXPECT_TRUE(Traced("(loopback only; at most 64 connections")) << Traces();
}

TEST_F(RouteAccessTest, OtherLocalUserMeetsTheSocketModeGroupAndAllowLists) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client as uid " << kNobody;
  struct Case {
    char const* what;
    char const* group;
    char const* allowGids;
    char const* outcome;
  } const cases[] = {
      {"socket file not open to it", "", "", "cannot connect"},
      {"file open to its group, uid not allowed", "65534", "", "closed without an answer"},
      {"gid allowed", "65534", "65534", "served"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.what);
    m_server.reset();
    m_traces.Clear();
    m_fake = cCountingRouteServer();
    Set(cRouteServer::kSocketModeProperty, "0660");
    Set(cRouteServer::kSocketGroupProperty, c.group);
    Set(cRouteServer::kAllowUidsProperty, "root");
    Set(cRouteServer::kAllowGidsProperty, c.allowGids);
    ASSERT_TRUE(Open()) << Traces();
    struct stat st {};
    ASSERT_EQ(stat(Path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0660u);
    EXPECT_EQ(st.st_gid, c.group[0] ? kNobody : 0u);

    pid_t nobody = StartClient(true);
    pid_t root = StartClient(false);
    EXPECT_EQ(Collect(nobody), c.outcome);
    EXPECT_EQ(Collect(root), "served");
    bool refused = std::string(c.outcome) == "closed without an answer";
    EXPECT_EQ(Traced(kest::FormatString("refusing connection from uid=%u pid=%d on unix:%s: uid %u "
                                        "gid %u not allowed",
                                        kNobody, nobody, Path().c_str(), kNobody, kNobody)),
              refused)
        << Traces();
    EXPECT_EQ(m_fake.commands, std::string(c.outcome) == "served" ? 2 : 1);
  }
}

}  // namespace
}  // namespace routeIO

// The HAL client against a listener the test drives by hand: the failures it
// answers itself and its connection messages. Requests against a real proxy
// are tested with halproxy (tests/halproxy).
#include "hal/hal_client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "hal/hal_errors.h"
#include "hal/hal_protocol.h"
#include "kest/frame.h"
#include "kest/service.h"
#include "support/poll.h"

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

using testsupport::PumpUntil;

void Send(int fd, kest::cFrame const& frame) {
  std::vector<std::uint8_t> out;
  kest::EncodeFrame(frame, out);
  ASSERT_EQ(static_cast<ssize_t>(out.size()), send(fd, out.data(), out.size(), MSG_NOSIGNAL));
}

// Takes the client's next connection (the loop runs until it comes) and,
// unless told to hang up at once, answers its hello as the proxy would.
int Accept(int listener) {
  int fd = -1;
  EXPECT_TRUE(PumpUntil([&] { return (fd = accept4(listener, nullptr, nullptr, 0)) >= 0; }));
  return fd;
}

int AcceptAndGreet(int listener) {
  int fd = Accept(listener);
  std::uint8_t buf[256];
  kest::cFrameReader reader;
  kest::cFrame hello;
  std::string error;
  ssize_t n = read(fd, buf, sizeof buf);
  if (n > 0) reader.Feed(buf, static_cast<std::size_t>(n));
  EXPECT_EQ(reader.Next(hello, error), kest::cFrameReader::kFrame);
  Send(fd, kest::AcceptFrame(hello.id, kService));
  return fd;
}

TEST(HalClient, FailureCodesAndOnConnectAtEveryConnection) {
  kest::ResetLoop();
  testsupport::cTempDir dir("halclient-test");
  std::string const path = dir.File("hal.sock");
  sockaddr_un sa{AF_UNIX, {}};
  path.copy(sa.sun_path, sizeof sa.sun_path - 1);
  int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&sa), sizeof sa));
  ASSERT_EQ(0, listen(listener, 4));
  cCountingService service;
  cNoCallbacks callbacks;
  cHalClient client(&service, &callbacks, 300, "unix:" + path);

  std::vector<std::string> lines;
  EXPECT_EQ("-1001 (not connected)", halerr::Describe(client.RemoveIPDefaultGateway("1.2.3.4")));
  EXPECT_EQ(halerr::kNotConnected, client.ListRoutes(lines));
  ASSERT_TRUE(client.Start());
  int fd = AcceptAndGreet(listener);
  ASSERT_TRUE(PumpUntil([&] { return service.connects == 1 && client.IsConnected(); }));

  kest::cFrame reply;  // to the client's first request after the hello (id 1), sent ahead
  reply.kind = kest::cFrame::kReply;
  reply.id = 2;
  reply.op = halop::kRemoveIPGateway;
  reply.body.Write(std::vector<std::uint8_t>{1, 2, 3}.data(), 3);
  Send(fd, reply);
  EXPECT_EQ(halerr::kProtocol, client.RemoveIPGateway("10.1.0.0", "255.255.0.0", "10.0.0.1", true));
  EXPECT_EQ(halerr::kTimeout, client.ConfigureIpDefaultGateway("10.0.0.1", 1));
  close(fd);
  // The client gave up on that connection and comes back, as after the proxy went
  // away; one closed before answering the hello is no connection at all.
  close(Accept(listener));
  fd = AcceptAndGreet(listener);
  ASSERT_TRUE(PumpUntil([&] { return service.connects == 2 && client.IsConnected(); }));
  close(fd);
  client.Stop();
  kest::ResetLoop();
  close(listener);
}

}  // namespace
}  // namespace hal

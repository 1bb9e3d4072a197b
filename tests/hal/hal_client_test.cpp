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

TEST(HalClient, FailureCodesAndOnConnectAtEveryConnection) {
  kest::ResetLoop();
  testsupport::cTempDir dir("halclient-test");
  std::string const path = dir.File("hal.sock");
  sockaddr_un sa{AF_UNIX, {}};
  path.copy(sa.sun_path, sizeof sa.sun_path - 1);
  int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&sa), sizeof sa));
  ASSERT_EQ(0, listen(listener, 4));
  cCountingService service;
  cNoCallbacks callbacks;
  cHalClient client(&service, &callbacks, 300, "unix:" + path);

  std::vector<std::string> lines;
  EXPECT_EQ("-1001 (not connected)", halerr::Describe(client.RemoveIPDefaultGateway("1.2.3.4")));
  EXPECT_EQ(halerr::kNotConnected, client.ListRoutes(lines));
  ASSERT_TRUE(client.Start());
  ASSERT_TRUE(PumpUntil([&] { return service.connects == 1 && client.IsConnected(); }));

  kest::cFrame reply;  // to the client's first request (ids count from 1), sent ahead
  reply.kind = kest::cFrame::kReply;
  reply.id = 1;
  reply.op = halop::kRemoveIPGateway;
  reply.body.Write(std::vector<std::uint8_t>{1, 2, 3}.data(), 3);
  std::vector<std::uint8_t> out;
  kest::EncodeFrame(reply, out);
  int fd = accept(listener, nullptr, nullptr);
  ASSERT_EQ(static_cast<ssize_t>(out.size()), send(fd, out.data(), out.size(), MSG_NOSIGNAL));
  EXPECT_EQ(halerr::kProtocol, client.RemoveIPGateway("10.1.0.0", "255.255.0.0", "10.0.0.1", true));
  EXPECT_EQ(halerr::kTimeout, client.ConfigureIpDefaultGateway("10.0.0.1", 1));
  close(fd);
  // The client gave up on that connection and comes back, as after the proxy went away.
  ASSERT_TRUE(PumpUntil([&] { return service.connects == 2; }));
  close(accept(listener, nullptr, nullptr));
  ASSERT_TRUE(PumpUntil([&] { return service.connects == 3; }));
  EXPECT_TRUE(client.IsConnected());
  client.Stop();
  kest::ResetLoop();
  close(listener);
}

}  // namespace
}  // namespace hal

// The HAL client against a listener the test drives by hand: the failures it
// answers itself and its connection messages. Requests against a real proxy
// are tested with halproxy (tests/halproxy).
#include "hal/hal_client.h"

#include <gtest/gtest.h>

#include "hal/hal_errors.h"
#include "hal/hal_protocol.h"
#include "kest/service.h"
#include "kest/test_support.h"

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

TEST(HalClient, FailureCodesAndOnConnectAtEveryConnection) {
  kesttest::Listener listener;
  cCountingService service;
  cHalClient client(&service, nullptr, 300, listener.Ap());
  std::vector<std::string> lines;
  EXPECT_EQ("-1001 (not connected)", halerr::Describe(client.RemoveIPDefaultGateway("1.2.3.4")));
  EXPECT_EQ(halerr::kNotConnected, client.ListRoutes(lines));
  ASSERT_TRUE(client.Start());
  kesttest::RawEnd proxy(listener.Accept(&kService));
  ASSERT_TRUE(kesttest::PumpUntil([&] { return service.connects == 1 && client.IsConnected(); }));
  // To the client's first request after the hello (id 1), sent ahead.
  proxy.Send(kesttest::Wire(kest::cFrame::kReply, 2, halop::kRemoveIPGateway, "\1\2\3"));
  EXPECT_EQ(halerr::kProtocol, client.RemoveIPGateway("10.1.0.0", "255.255.0.0", "10.0.0.1", true));
  EXPECT_EQ(halerr::kTimeout, client.ConfigureIpDefaultGateway("10.0.0.1", 1));
  // The client gave up on that connection and comes back, as after the proxy went
  // away; one closed before answering the hello is no connection at all.
  close(listener.Accept(nullptr));
  kesttest::RawEnd again(listener.Accept(&kService));
  ASSERT_TRUE(kesttest::PumpUntil([&] { return service.connects == 2 && client.IsConnected(); }));
  client.Stop();
}

}  // namespace
}  // namespace hal

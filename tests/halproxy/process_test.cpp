// halproxy as a program, on bad input. Good requests, with the results and
// the log they give, batches included, run end to end (tests/e2e) and in
// tests/routemgr/hal_batch_test.cpp.
#include <gtest/gtest.h>

#include <cerrno>

#include "hal/hal_client.h"
#include "hal/hal_protocol.h"
#include "kest/frame.h"
#include "kest/service.h"
#include "kest/test_support.h"
#include "support/stack.h"

namespace testsupport {
namespace {

void Put(std::vector<std::uint8_t>& out, std::uint8_t kind, std::uint16_t op,
         std::vector<std::uint8_t> body) {
  kest::EncodeFrame({kind, 7, op, kest::cSerializeBuffer(body.data(), body.size())}, out);
}
void PutAnswer(std::vector<std::uint8_t>& out, std::uint16_t op, int rc) {
  kest::cSerializeBuffer body;
  hal::cRouteList list;
  list.result = rc;
  op == hal::halop::kListRoutes ? (void)hal::EncodeRouteList(list, body)
                                : hal::EncodeResult(rc, body);
  kest::EncodeFrame({kest::cFrame::kReply, 7, op, body}, out);
}

// Frames the HAL client would never send, pipelined: each request gets an
// error answer, an oversized frame a closed connection, and the proxy goes on.
TEST(HalproxyProcess, GarbageGetsAnErrorOrAClosedConnectionAndTheProxyGoesOn) {
  if (std::string const why = CannotStartPrograms(); !why.empty()) GTEST_SKIP() << why;
  cStack stack;
  ASSERT_TRUE(stack.StartHal());
  kesttest::RawClient raw(stack.halSap);
  ASSERT_EQ(raw.Greet(hal::kService), "accepted");
  std::uint16_t const list = hal::halop::kListRoutes;
  std::vector<std::uint8_t> sent, expected, answers;
  Put(sent, kest::cFrame::kRequest, 77, {});
  Put(sent, kest::cFrame::kRequest, 1, {1, 200, 0, 0, 0, 'x'});
  Put(sent, kest::cFrame::kRequest, list, {0, 0, 0, 0, 0});  // a stray byte
  Put(sent, kest::cFrame::kEvent, 4, {});                    // not answered
  Put(sent, kest::cFrame::kRequest, list, {0, 0, 0, 0});
  PutAnswer(expected, 77, -EOPNOTSUPP);
  PutAnswer(expected, 1, -EBADMSG);
  PutAnswer(expected, list, -EBADMSG);
  PutAnswer(expected, list, 0);
  raw.Send(sent);
  for (kest::cFrame f; answers.size() < expected.size() && raw.Receive(f);) {
    std::vector<std::uint8_t> const one = kesttest::Wire(f);
    answers.insert(answers.end(), one.begin(), one.end());
  }
  EXPECT_EQ(expected, answers);
  raw.Send({0xFF, 0xFF, 0xFF, 0x7F, 1, 1, 0, 0, 0, 1, 0});
  EXPECT_TRUE(raw.ClosedByServer());
  kest::cService service;
  hal::cHalClient client(&service, nullptr, 3000, stack.halSap);
  client.Start();
  ASSERT_TRUE(PumpUntil([&] { return client.IsConnected(); }));
  EXPECT_EQ(0, client.ConfigureIpDefaultGateway("10.0.0.1", 1));
  EXPECT_TRUE(stack.hal->WaitForLog("bad request op 1")) << stack.hal->Log();
  // Test operations are off unless asked for.
  EXPECT_EQ(-EPERM, client.InjectFault(hal::halop::kConfigureIPGateway, -5, 1));
  EXPECT_TRUE(stack.hal->WaitForLog("-> -1 (Operation not permitted: test operations are off"));
  EXPECT_EQ(0, stack.hal->Stop());
}

}  // namespace
}  // namespace testsupport

#include "hal/hal_protocol.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

namespace hal {
namespace {

// One request of each operation, every field it carries set to a value no
// decoder would produce by accident (texts are bytes; the proxy judges them).
std::vector<cHalRequest> Samples() {
  return {{halop::kConfigureIPGateway, "10.1.0.0", "255.255.0.0", "192.168.1.1", "1.2.3.4", "eth1",
           0xFFFFFFFFu, false},
          {halop::kRemoveIPGateway, "10.1.0.0", "255.255.0.0", "192.168.1.1", "", "", 0, false},
          {halop::kConfigureIpDefaultGateway, "", "", "10.0.0.1", "", "", 5, true},
          {halop::kRemoveIPDefaultGateway, "", "", std::string("odd\0text", 8), "", "", 0, true},
          {halop::kRefreshStart, "", "", "", "", "", 0, true},
          {halop::kRefreshEnd, "", "", "", "", "", 0, true},
          {halop::kListRoutes, "", "", "", "", "", 0, true, 0, 0, 0, 0x01020304u},
          {halop::kInjectFault, "", "", "", "", "", 0, true, halop::kRemoveIPGateway, -101, 2}};
}

std::vector<std::uint8_t> Encoded(cHalRequest const& req) {
  kest::cSerializeBuffer body;
  EXPECT_TRUE(EncodeRequest(req, body)) << Describe(req);
  return body.Bytes();
}

bool Decodes(std::uint16_t op, std::vector<std::uint8_t> const& bytes, std::size_t len,
             cHalRequest& out, std::string& error) {
  kest::cSerializeBuffer body(bytes.data(), len);
  error.clear();
  return DecodeRequest(op, body, out, error);
}

// A decoder that drops or swaps a field changes the re-encoded bytes.
TEST(HalProtocol, RequestsRoundTripAndCutOrPaddedBodiesAreRefused) {
  for (auto const& req : Samples()) {
    SCOPED_TRACE(Describe(req));
    auto bytes = Encoded(req);
    cHalRequest back;
    std::string error;
    ASSERT_TRUE(Decodes(req.op, bytes, bytes.size(), back, error)) << error;
    EXPECT_EQ(bytes, Encoded(back));
    for (std::size_t len = 0; len < bytes.size(); ++len) {
      EXPECT_FALSE(Decodes(req.op, bytes, len, back, error)) << "len " << len;
      EXPECT_FALSE(error.empty());
    }
    bytes.push_back(0);
    EXPECT_FALSE(Decodes(req.op, bytes, bytes.size(), back, error));
    EXPECT_NE(error.find("left over"), std::string::npos) << error;
  }
  cHalRequest hostile = Samples()[3];  // a peer's text must not forge a log line
  hostile.gateway = "1.2.3.4\nFAKE";
  EXPECT_EQ("RemoveIPDefaultGateway 1.2.3.4?FAKE", Describe(hostile));
}

// A plain result makes the trip with every request to the real proxy (tests/halproxy).
TEST(HalProtocol, RouteListsRoundTripAndBrokenOnesAreRefused) {
  std::string error;
  cRouteList list{-5, {"default via 10.0.0.1 metric 5", ""}, true}, back;
  kest::cSerializeBuffer body;
  ASSERT_TRUE(EncodeRouteList(list, body));
  ASSERT_TRUE(DecodeRouteList(body, back, error)) << error;
  EXPECT_EQ(std::make_tuple(list.result, list.lines, list.more),
            std::make_tuple(back.result, back.lines, back.more));
  kest::cSerializeBuffer lying;  // a count the body cannot hold is not allocated for
  lying.WriteU32(0);
  lying.WriteU32(0xFFFFFFFFu);
  EXPECT_FALSE(DecodeRouteList(lying, back, error));
  EXPECT_NE(error.find("count"), std::string::npos) << error;
  // A proxy that keeps announcing more is not waited for. Tables listed in
  // pieces are run end to end.
  std::vector<std::string> collected;
  EXPECT_FALSE(CollectRoutePiece(cRouteList{0, {}, true}, collected, error));
  EXPECT_EQ(error, "more routes announced and none sent");
}

}  // namespace
}  // namespace hal

#include "hal/hal_protocol.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "hal/hal_errors.h"

namespace hal {
namespace {

bool Same(cHalRequest const& a, cHalRequest const& b) {
  return a.op == b.op && a.network == b.network && a.netmask == b.netmask &&
         a.gateway == b.gateway && a.source == b.source && a.ifname == b.ifname &&
         a.metric == b.metric && a.gwAvailable == b.gwAvailable && a.faultOp == b.faultOp &&
         a.faultCode == b.faultCode && a.faultCount == b.faultCount;
}

cHalRequest Route(std::uint16_t op, bool avail) {
  cHalRequest r;
  r.op = op;
  r.network = "10.1.0.0";
  r.netmask = "255.255.0.0";
  r.gateway = "192.168.1.1";
  if (op == halop::kConfigureIPGateway) {
    r.source = "0.0.0.0";
    r.ifname = "eth1";
    r.metric = 0xFFFFFFFFu;
  }
  r.gwAvailable = avail;
  return r;
}

// Only the fields an operation carries are set, so a round trip must give
// the request back unchanged.
std::vector<cHalRequest> Samples() {
  std::vector<cHalRequest> v = {Route(halop::kConfigureIPGateway, true),
                                Route(halop::kConfigureIPGateway, false),
                                Route(halop::kRemoveIPGateway, true),
                                Route(halop::kRemoveIPGateway, false)};
  cHalRequest def;
  def.op = halop::kConfigureIpDefaultGateway;
  def.gateway = "10.0.0.1";
  def.metric = 5;
  v.push_back(def);
  cHalRequest rmdef;
  rmdef.op = halop::kRemoveIPDefaultGateway;
  rmdef.gateway = std::string("odd\0text", 8);  // texts are bytes; the proxy judges them
  v.push_back(rmdef);
  cHalRequest list;
  list.op = halop::kListRoutes;
  v.push_back(list);
  cHalRequest fault;
  fault.op = halop::kInjectFault;
  fault.faultOp = halop::kRemoveIPGateway;
  fault.faultCode = -101;
  fault.faultCount = 2;
  v.push_back(fault);
  return v;
}

TEST(HalProtocol, RequestsRoundTrip) {
  for (auto const& req : Samples()) {
    kest::cSerializeBuffer body;
    ASSERT_TRUE(EncodeRequest(req, body)) << Describe(req);
    cHalRequest back;
    std::string error;
    ASSERT_TRUE(DecodeRequest(req.op, body, back, error)) << Describe(req) << ": " << error;
    EXPECT_TRUE(Same(req, back)) << Describe(req) << " came back as " << Describe(back);
  }
}

TEST(HalProtocol, TruncatedOrPaddedBodiesAreRefused) {
  for (auto const& req : Samples()) {
    kest::cSerializeBuffer full;
    ASSERT_TRUE(EncodeRequest(req, full));
    for (std::size_t len = 0; len < full.Size(); ++len) {
      kest::cSerializeBuffer part(full.Data(), len);
      cHalRequest out;
      std::string error;
      EXPECT_FALSE(DecodeRequest(req.op, part, out, error)) << Describe(req) << " len " << len;
      EXPECT_FALSE(error.empty());
    }
    kest::cSerializeBuffer longer(full.Data(), full.Size());
    longer.WriteU8(0);
    cHalRequest out;
    std::string error;
    EXPECT_FALSE(DecodeRequest(req.op, longer, out, error)) << Describe(req);
    EXPECT_NE(error.find("left over"), std::string::npos) << error;
  }
}

TEST(HalProtocol, MalformedFieldsAreRefusedWithTheirName) {
  struct Case {
    char const* what;
    std::vector<std::uint8_t> bytes;
    std::uint16_t op;
    char const* errorPart;
  };
  kest::cSerializeBuffer gw;
  kest::s_string("10.0.0.1").Serialize(gw);
  std::vector<std::uint8_t> badVersion = gw.Bytes();
  badVersion[0] = 9;
  std::vector<std::uint8_t> hugeLength = {1, 0xFF, 0xFF, 0xFF, 0xFF};
  std::vector<std::uint8_t> badBool;
  {
    cHalRequest r = Route(halop::kRemoveIPGateway, true);
    kest::cSerializeBuffer b;
    EncodeRequest(r, b);
    badBool = b.Bytes();
    badBool.back() = 2;
  }
  Case cases[] = {
      {"string of unknown version", badVersion, halop::kRemoveIPDefaultGateway, "gateway"},
      {"string longer than the body", hugeLength, halop::kRemoveIPDefaultGateway, "gateway"},
      {"flag neither 0 nor 1", badBool, halop::kRemoveIPGateway, "gwAvailable"},
      {"unknown operation", {}, 99, "unknown operation 99"},
  };
  for (auto const& c : cases) {
    kest::cSerializeBuffer body(c.bytes.data(), c.bytes.size());
    cHalRequest out;
    std::string error;
    EXPECT_FALSE(DecodeRequest(c.op, body, out, error)) << c.what;
    EXPECT_NE(error.find(c.errorPart), std::string::npos) << c.what << ": " << error;
  }
}

TEST(HalProtocol, ResultsAndRouteListsRoundTrip) {
  for (int rc : {0, -19, -1003, -2147483647 - 1}) {
    kest::cSerializeBuffer body;
    EncodeResult(rc, body);
    int back = 1;
    std::string error;
    ASSERT_TRUE(DecodeResult(body, back, error)) << error;
    EXPECT_EQ(rc, back);
  }
  std::vector<std::string> lines = {"default via 10.0.0.1 metric 5",
                                    "unreachable 10.9.0.0/16 metric 0", ""};
  kest::cSerializeBuffer body;
  ASSERT_TRUE(EncodeRouteList(0, lines, body));
  int rc = 1;
  std::vector<std::string> back;
  std::string error;
  ASSERT_TRUE(DecodeRouteList(body, rc, back, error)) << error;
  EXPECT_EQ(0, rc);
  EXPECT_EQ(lines, back);
}

TEST(HalProtocol, BrokenAnswersAreRefused) {
  int rc = 0;
  std::string error;
  kest::cSerializeBuffer shortResult(std::vector<std::uint8_t>{1, 2, 3}.data(), 3);
  EXPECT_FALSE(DecodeResult(shortResult, rc, error));

  // A count the body cannot hold must not be believed (nor allocated for).
  kest::cSerializeBuffer lying;
  lying.WriteU32(0);
  lying.WriteU32(0xFFFFFFFFu);
  std::vector<std::string> lines;
  EXPECT_FALSE(DecodeRouteList(lying, rc, lines, error));
  EXPECT_NE(error.find("count"), std::string::npos) << error;
}

// Request texts come from a peer: a log line must stay one line.
TEST(HalProtocol, DescribeKeepsPeerTextOnOneLine) {
  cHalRequest hostile;
  hostile.op = halop::kRemoveIPDefaultGateway;
  hostile.gateway = "1.2.3.4\nFAKE LOG LINE";
  EXPECT_EQ("RemoveIPDefaultGateway 1.2.3.4?FAKE LOG LINE", Describe(hostile));
}

TEST(HalErrors, ClientCodesAreDistinctNamedAndFarFromErrno) {
  int codes[] = {halerr::kNotConnected, halerr::kTimeout, halerr::kProtocol,
                 halerr::kConnectionLost};
  std::set<std::string> names;
  for (int code : codes) {
    EXPECT_LT(code, -255);  // below every errno Linux has, so never taken for a kernel answer
    ASSERT_NE(nullptr, halerr::Name(code));
    names.insert(halerr::Name(code));
  }
  EXPECT_EQ(4u, std::set<int>(std::begin(codes), std::end(codes)).size());
  EXPECT_EQ(4u, names.size());
  EXPECT_EQ(nullptr, halerr::Name(-19));
  EXPECT_EQ("-1001 (not connected)", halerr::Describe(halerr::kNotConnected));
  EXPECT_EQ("0 (ok)", halerr::Describe(0));
  EXPECT_EQ("-19 (No such device)", halerr::Describe(-19));
}

}  // namespace
}  // namespace hal

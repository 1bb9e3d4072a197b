#include "netlink_codec.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <random>

namespace halproxy {
namespace nl {
namespace {

nlmsghdr Header(std::vector<std::uint8_t> const& msg) {
  nlmsghdr h;
  std::memcpy(&h, msg.data(), sizeof h);
  return h;
}

cNlRoute Parsed(std::vector<std::uint8_t> const& msg) {
  cNlRoute r;
  EXPECT_TRUE(ParseRoute(msg.data() + NLMSG_HDRLEN, msg.size() - NLMSG_HDRLEN, r));
  return r;
}

cNlRoute SampleRoute() {
  cNlRoute r;
  r.dst = 0x0A0102FF;  // 10.1.2.255, host bits set on purpose
  r.dstLen = 16;
  r.type = RTN_UNICAST;
  r.protocol = kRouteProtocol;
  r.scope = RT_SCOPE_UNIVERSE;
  r.table = RT_TABLE_MAIN;
  r.gateway = 0xC0A80101;  // 192.168.1.1
  r.prefsrc = 0xC0A80102;
  r.oif = 3;
  r.priority = 7;
  r.hasPriority = true;
  return r;
}

TEST(NetlinkCodec, NewRouteCarriesEveryFieldWithTheDestinationMasked) {
  auto msg = BuildNewRoute(SampleRoute(), NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE, 42);
  nlmsghdr h = Header(msg);
  EXPECT_EQ(RTM_NEWROUTE, h.nlmsg_type);
  EXPECT_EQ(NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE, h.nlmsg_flags);
  EXPECT_EQ(42u, h.nlmsg_seq);
  EXPECT_EQ(msg.size(), h.nlmsg_len);
  cNlRoute r = Parsed(msg);
  EXPECT_EQ(0x0A010000u, r.dst);
  EXPECT_EQ(16, r.dstLen);
  EXPECT_EQ(RTN_UNICAST, r.type);
  EXPECT_EQ(kRouteProtocol, r.protocol);
  EXPECT_EQ(RT_TABLE_MAIN, r.table);
  EXPECT_EQ(0xC0A80101u, r.gateway);
  EXPECT_EQ(0xC0A80102u, r.prefsrc);
  EXPECT_EQ(3u, r.oif);
  EXPECT_EQ(7u, r.priority);
}

TEST(NetlinkCodec, UnsetFieldsAreLeftOut) {
  cNlRoute bare;
  bare.type = RTN_UNREACHABLE;
  bare.dst = 0x0A090000;
  bare.dstLen = 16;
  bare.table = RT_TABLE_MAIN;
  auto msg = BuildDelRoute(bare, 1);
  // Header, struct rtmsg and one attribute (the destination) only.
  EXPECT_EQ(NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg)) + 8u, msg.size());
  EXPECT_EQ(NLM_F_REQUEST | NLM_F_ACK, Header(msg).nlmsg_flags);
  EXPECT_FALSE(Parsed(msg).hasPriority);

  cNlRoute def;
  def.gateway = 0x0A000001;
  def.type = RTN_UNICAST;
  auto msgDef = BuildNewRoute(def, NLM_F_ACK, 2);  // a default route has no RTA_DST
  EXPECT_EQ(NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg)) + 8u, msgDef.size());
}

// Answers as the kernel writes them.
class cAnswer {
 public:
  // NLMSG_ERROR for request seq; with text, an extended ack carrying it.
  cAnswer& Error(std::uint32_t seq, int error, char const* text = nullptr, bool capped = true) {
    nlmsghdr* nlh = Put(NLMSG_ERROR, seq, 0);
    auto* err = static_cast<nlmsgerr*>(mnl_nlmsg_put_extra_header(nlh, sizeof(nlmsgerr)));
    err->error = error;
    err->msg.nlmsg_len = NLMSG_HDRLEN + 20;
    err->msg.nlmsg_seq = seq;
    if (!capped) {
      mnl_nlmsg_put_extra_header(nlh, 20);  // the request's body, echoed back
    } else {
      nlh->nlmsg_flags |= NLM_F_CAPPED;
    }
    if (text != nullptr) {
      nlh->nlmsg_flags |= NLM_F_ACK_TLVS;
      mnl_attr_put_u32(nlh, NLMSGERR_ATTR_OFFS, 28);
      mnl_attr_put_strz(nlh, NLMSGERR_ATTR_MSG, text);
    }
    return Close(nlh);
  }
  cAnswer& Route(std::uint32_t seq, cNlRoute const& r, std::uint8_t family = AF_INET) {
    auto built = BuildNewRoute(r, 0, seq);
    built[NLMSG_HDRLEN] = family;
    nlmsghdr h;
    std::memcpy(&h, built.data(), sizeof h);
    h.nlmsg_flags = NLM_F_MULTI;
    std::memcpy(built.data(), &h, sizeof h);
    m_bytes.insert(m_bytes.end(), built.begin(), built.end());
    return *this;
  }
  cAnswer& Done(std::uint32_t seq) {
    nlmsghdr* nlh = Put(NLMSG_DONE, seq, NLM_F_MULTI);
    int zero = 0;
    std::memcpy(mnl_nlmsg_put_extra_header(nlh, sizeof zero), &zero, sizeof zero);
    return Close(nlh);
  }
  std::vector<std::uint8_t> const& Bytes() const { return m_bytes; }

 private:
  nlmsghdr* Put(std::uint16_t type, std::uint32_t seq, std::uint16_t flags) {
    std::memset(m_buf, 0, sizeof m_buf);
    nlmsghdr* nlh = mnl_nlmsg_put_header(m_buf);
    nlh->nlmsg_type = type;
    nlh->nlmsg_seq = seq;
    nlh->nlmsg_flags = flags;
    return nlh;
  }
  cAnswer& Close(nlmsghdr* nlh) {
    auto* p = reinterpret_cast<std::uint8_t*>(nlh);
    m_bytes.insert(m_bytes.end(), p, p + NLMSG_ALIGN(nlh->nlmsg_len));
    return *this;
  }
  alignas(4) std::uint8_t m_buf[512];
  std::vector<std::uint8_t> m_bytes;
};

TEST(NetlinkCodec, AcksAndErrorsEndTheAnswerWithTheKernelsText) {
  struct Case {
    char const* name;
    cAnswer answer;
    int error;
    char const* text;
  };
  Case cases[] = {
      {"plain ack", cAnswer().Error(5, 0), 0, ""},
      {"capped error with text", cAnswer().Error(5, -ENODEV, "Nexthop device required"),
       -ENODEV, "Nexthop device required"},
      {"uncapped error with text", cAnswer().Error(5, -EINVAL, "Invalid prefsrc", false), -EINVAL,
       "Invalid prefsrc"},
      {"stale answer first", cAnswer().Error(4, -EEXIST).Error(5, -ESRCH), -ESRCH, ""},
  };
  for (auto const& c : cases) {
    auto const& b = c.answer.Bytes();
    cNlResult res = ParseReply(b.data(), b.size(), 5, nullptr);
    EXPECT_EQ(cNlResult::kDone, res.status) << c.name;
    EXPECT_EQ(c.error, res.error) << c.name;
    EXPECT_EQ(c.text, res.message) << c.name;
  }
}

TEST(NetlinkCodec, DumpSpansDatagramsAndKeepsOnlyIpv4Routes) {
  cNlRoute a = SampleRoute(), b = SampleRoute();
  b.dst = 0;
  b.dstLen = 0;
  cAnswer first;
  first.Route(9, a).Route(8, b).Route(9, a, AF_INET6);
  cAnswer second;
  second.Route(9, b).Done(9);
  std::vector<cNlRoute> routes;
  auto r1 = ParseReply(first.Bytes().data(), first.Bytes().size(), 9, &routes);
  EXPECT_EQ(cNlResult::kMore, r1.status);
  auto r2 = ParseReply(second.Bytes().data(), second.Bytes().size(), 9, &routes);
  EXPECT_EQ(cNlResult::kDone, r2.status);
  EXPECT_EQ(0, r2.error);
  ASSERT_EQ(2u, routes.size());
  EXPECT_EQ(0x0A010000u, routes[0].dst);
  EXPECT_EQ(0, routes[1].dstLen);
}

// Whatever the bytes, the parser answers without reading outside them (run
// under the sanitizers to make that visible).
TEST(NetlinkCodec, TruncatedAndRandomBytesAreSurvived) {
  cAnswer answer;
  answer.Route(1, SampleRoute()).Error(1, -ENODEV, "Nexthop device required", false).Done(1);
  auto const& full = answer.Bytes();
  for (std::size_t len = 0; len <= full.size(); ++len) {
    std::vector<std::uint8_t> part(full.begin(), full.begin() + len);
    std::vector<cNlRoute> routes;
    ParseReply(part.data(), part.size(), 1, &routes);
  }
  std::mt19937 rng(1234);
  for (int i = 0; i < 3000; ++i) {
    std::vector<std::uint8_t> bytes = full;
    for (int flips = 0; flips < 4; ++flips) bytes[rng() % bytes.size()] = rng() & 0xFF;
    std::vector<cNlRoute> routes;
    cNlResult res = ParseReply(bytes.data(), rng() % (bytes.size() + 1), 1, &routes);
    if (res.status == cNlResult::kMalformed) {
      EXPECT_FALSE(res.message.empty());
    }
  }
  std::uint8_t tooLong[] = {0xFF, 0, 0, 0, NLMSG_ERROR, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(cNlResult::kMalformed, ParseReply(tooLong, sizeof tooLong, 1, nullptr).status);
}

}  // namespace
}  // namespace nl
}  // namespace halproxy

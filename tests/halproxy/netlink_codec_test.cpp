// The netlink codec without a kernel: what it builds it parses back, and the
// answers a kernel seldom gives.
#include "netlink_codec.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "kest/format.h"

namespace {

namespace nl = halproxy::nl;

std::string Text(nl::cNlRoute const& r) {
  return kest::FormatString("%x/%u via %x dev %u src %x metric %u/%d table %u type %u/%u/%u", r.dst,
                            r.dstLen, r.gateway, r.oif, r.prefsrc, r.priority, r.hasPriority,
                            r.table, r.type, r.protocol, r.scope);
}

nlmsghdr Header(std::vector<std::uint8_t> const& msg) {
  nlmsghdr h;
  std::memcpy(&h, msg.data(), sizeof h);
  return h;
}

TEST(NetlinkCodec, BuiltMessagesParseBackAsTheirRoutes) {
  // Every attribute, with host bits in the destination that the build masks.
  nl::cNlRoute const full = {0x0A010203,
                             16,
                             RTN_UNICAST,
                             nl::kRouteProtocol,
                             RT_SCOPE_UNIVERSE,
                             RT_TABLE_MAIN,
                             0xC0000201,
                             0xC0000202,
                             3,
                             7,
                             true};
  nl::cNlRoute const bare;  // a default route: no attributes at all
  nl::cNlRoute const host = {0x0A000001, 32, RTN_UNREACHABLE, 0, RT_SCOPE_LINK, 1000};  // RTA_TABLE
  std::vector<std::uint8_t> dump;  // the three as a kernel's dump answer would carry them
  for (nl::cNlRoute const& sent : {full, bare, host}) {
    nl::cNlRoute want = sent;
    if (want.dstLen == 16) want.dst &= 0xFFFF0000u;
    auto const msg = nl::BuildNewRoute(sent, NLM_F_CREATE, 41);
    auto const del = nl::BuildDelRoute(sent, 42);
    ASSERT_LE(msg.size(), nl::kRouteMessageMax);
    EXPECT_EQ(Header(msg).nlmsg_type, RTM_NEWROUTE);
    EXPECT_EQ(Header(msg).nlmsg_flags, NLM_F_REQUEST | NLM_F_CREATE);
    EXPECT_EQ(Header(del).nlmsg_type, RTM_DELROUTE);
    EXPECT_EQ(Header(del).nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK);
    for (auto const& m : {msg, del}) {
      nl::cNlRoute got;
      ASSERT_TRUE(nl::ParseRoute(m.data() + NLMSG_HDRLEN, m.size() - NLMSG_HDRLEN, got));
      EXPECT_EQ(Text(got), Text(want));
    }
    nl::AppendNewRoute(dump, sent, NLM_F_MULTI, 43);
  }
  auto const request = nl::BuildRouteDump(43);
  EXPECT_EQ(Header(request).nlmsg_type, RTM_GETROUTE);
  EXPECT_EQ(Header(request).nlmsg_flags, NLM_F_REQUEST | NLM_F_DUMP);
  std::vector<nl::cNlRoute> routes;
  auto res = nl::ParseReply(dump.data(), dump.size(), 43, &routes);
  EXPECT_EQ(res.status, nl::cNlResult::kMore);  // no NLMSG_DONE yet
  nlmsghdr done = {NLMSG_HDRLEN, NLMSG_DONE, NLM_F_MULTI, 43, 0};
  res = nl::ParseReply(reinterpret_cast<std::uint8_t*>(&done), sizeof done, 43, &routes);
  EXPECT_EQ(res.status, nl::cNlResult::kDone);
  ASSERT_EQ(routes.size(), 3u);
  EXPECT_EQ(Text(routes[2]), Text(host));
}

// What the kernel test cannot provoke: late answers to earlier requests are
// skipped, a batch's numbers wrap past 2^32, a datagram is cut short.
TEST(NetlinkCodec, StaleAnswersAreSkippedAndACutDatagramIsReported) {
  struct cAck {
    nlmsghdr h;
    nlmsgerr e;
  };
  auto ack = [](std::uint32_t seq, int err) {
    return cAck{{sizeof(cAck), NLMSG_ERROR, NLM_F_CAPPED, seq, 0}, {err, {}}};
  };
  cAck acks[] = {ack(4, -EEXIST), ack(5, -ESRCH)};
  auto res = nl::ParseReply(reinterpret_cast<std::uint8_t*>(acks), sizeof acks, 5, nullptr);
  EXPECT_EQ(nl::cNlResult::kDone, res.status);
  EXPECT_EQ(-ESRCH, res.error);

  // A batch numbered 0xFFFFFFFE, 0xFFFFFFFF, 0, 1.
  cAck batch[] = {ack(0xFFFFFFF0u, -EEXIST), ack(0xFFFFFFFFu, -ENETUNREACH), ack(1, 0),
                  ack(2, -ESRCH)};
  auto const* bytes = reinterpret_cast<std::uint8_t*>(batch);
  std::vector<nl::cNlAck> got;
  std::string malformed;
  ASSERT_TRUE(nl::ParseAcks(bytes, sizeof batch, 0xFFFFFFFEu, 4, got, malformed)) << malformed;
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ(std::make_pair(0xFFFFFFFFu, -ENETUNREACH), std::make_pair(got[0].seq, got[0].error));
  EXPECT_EQ(std::make_pair(1u, 0), std::make_pair(got[1].seq, got[1].error));
  got.clear();
  EXPECT_FALSE(nl::ParseAcks(bytes, sizeof batch - 4, 0xFFFFFFFEu, 4, got, malformed));
  EXPECT_EQ("message length 36 does not fit", malformed);
  EXPECT_EQ(2u, got.size());  // what came before it still counts
}

}  // namespace

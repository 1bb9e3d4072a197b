#include "netlink_codec.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <utility>

namespace halproxy {
namespace nl {

namespace {

// Large enough for a route message with every attribute we put.
constexpr std::size_t kBuildBuffer = kRouteMessageMax;

// Appends the message to out.
void PutRoute(std::vector<std::uint8_t>& out, std::uint16_t type, std::uint16_t flags,
              cNlRoute const& r, std::uint32_t seq) {
  std::size_t const start = out.size();
  out.resize(start + kBuildBuffer);
  nlmsghdr* nlh = mnl_nlmsg_put_header(out.data() + start);
  nlh->nlmsg_type = type;
  nlh->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
  nlh->nlmsg_seq = seq;
  auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
  rtm->rtm_family = AF_INET;
  rtm->rtm_dst_len = r.dstLen;
  rtm->rtm_table =
      static_cast<std::uint8_t>(r.table < 256 ? r.table : std::uint32_t{RT_TABLE_UNSPEC});
  rtm->rtm_protocol = r.protocol;
  rtm->rtm_scope = r.scope;
  rtm->rtm_type = r.type;
  if (r.table >= 256) mnl_attr_put_u32(nlh, RTA_TABLE, r.table);
  // The kernel takes the destination as given: mask it here, so a request
  // with host bits set cannot install a route the kernel refuses or misreads.
  std::uint32_t mask = r.dstLen == 0    ? 0
                       : r.dstLen >= 32 ? 0xFFFFFFFFu
                                        : ~((1u << (32 - r.dstLen)) - 1);
  if (r.dstLen > 0) mnl_attr_put_u32(nlh, RTA_DST, htonl(r.dst & mask));
  if (r.gateway != 0) mnl_attr_put_u32(nlh, RTA_GATEWAY, htonl(r.gateway));
  if (r.oif != 0) mnl_attr_put_u32(nlh, RTA_OIF, r.oif);
  if (r.prefsrc != 0) mnl_attr_put_u32(nlh, RTA_PREFSRC, htonl(r.prefsrc));
  if (r.hasPriority) mnl_attr_put_u32(nlh, RTA_PRIORITY, r.priority);
  out.resize(start + nlh->nlmsg_len);
}

std::vector<std::uint8_t> BuildRoute(std::uint16_t type, std::uint16_t flags, cNlRoute const& r,
                                     std::uint32_t seq) {
  std::vector<std::uint8_t> buf;
  PutRoute(buf, type, flags, r, seq);
  return buf;
}

std::uint32_t ReadU32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Walks netlink attributes in [p, p+len); calls fn(type, data, dataLen) for
// each. False when an attribute's length runs past the end.
template <typename Fn>
bool WalkAttributes(const std::uint8_t* p, std::size_t len, Fn fn) {
  std::size_t off = 0;
  while (len - off >= sizeof(nlattr)) {
    nlattr a;
    std::memcpy(&a, p + off, sizeof a);
    if (a.nla_len < sizeof(nlattr) || a.nla_len > len - off) return false;
    fn(static_cast<std::uint16_t>(a.nla_type & NLA_TYPE_MASK), p + off + sizeof(nlattr),
       a.nla_len - sizeof(nlattr));
    std::size_t step = NLA_ALIGN(a.nla_len);
    if (step > len - off) break;
    off += step;
  }
  return true;
}

// The NLMSGERR_ATTR_MSG text among extended-ack attributes, if any.
std::string AckMessage(const std::uint8_t* p, std::size_t len) {
  std::string text;
  WalkAttributes(p, len, [&](std::uint16_t type, const std::uint8_t* data, std::size_t n) {
    if (type != NLMSGERR_ATTR_MSG) return;
    std::size_t end = 0;
    while (end < n && data[end] != 0) ++end;
    text.assign(reinterpret_cast<const char*>(data), end);
  });
  return text;
}

// Walks the messages of a datagram; fn(header, payload, payloadLen) returns
// false to stop. Empty, or what is malformed about the datagram.
template <typename Fn>
std::string WalkMessages(const std::uint8_t* data, std::size_t len, Fn fn) {
  std::size_t off = 0;
  while (len - off >= sizeof(nlmsghdr)) {
    nlmsghdr h;
    std::memcpy(&h, data + off, sizeof h);
    if (h.nlmsg_len < sizeof(nlmsghdr) || h.nlmsg_len > len - off)
      return "message length " + std::to_string(h.nlmsg_len) + " does not fit";
    const std::uint8_t* payload = data + off + NLMSG_HDRLEN;
    std::size_t plen = h.nlmsg_len - NLMSG_HDRLEN;
    std::size_t step = NLMSG_ALIGN(h.nlmsg_len);
    off = step > len - off ? len : off + step;
    if (!fn(h, payload, plen)) return {};
  }
  if (off != len) return std::to_string(len - off) + " stray bytes";
  return {};
}

// The code and extended-ack text of an NLMSG_ERROR or NLMSG_DONE message:
// kDone, or kMalformed and why.
cNlResult ParseErrorPayload(nlmsghdr const& h, const std::uint8_t* payload, std::size_t plen) {
  cNlResult res;
  if (plen < sizeof(std::int32_t)) {
    res.status = cNlResult::kMalformed;
    res.message = "error message too short";
    return res;
  }
  std::int32_t err;
  std::memcpy(&err, payload, sizeof err);
  // Only errors are negative; a positive value is nonsense, not success.
  if (err > 0) {
    res.status = cNlResult::kMalformed;
    res.message = "positive error " + std::to_string(err);
    return res;
  }
  res.status = cNlResult::kDone;
  res.error = err;
  if (h.nlmsg_flags & NLM_F_ACK_TLVS) {
    std::size_t tlv = sizeof(std::int32_t);
    if (h.nlmsg_type == NLMSG_ERROR) {
      // The request's header follows the code, and its body too unless
      // the kernel capped it.
      std::size_t orig = sizeof(nlmsghdr);
      if (!(h.nlmsg_flags & NLM_F_CAPPED) && plen >= tlv + sizeof(nlmsghdr)) {
        nlmsghdr req;
        std::memcpy(&req, payload + tlv, sizeof req);
        orig = req.nlmsg_len;
      }
      if (orig > plen) orig = plen;
      tlv = NLMSG_ALIGN(tlv + orig);
    }
    if (tlv < plen) res.message = AckMessage(payload + tlv, plen - tlv);
  }
  return res;
}

}  // namespace

std::vector<std::uint8_t> BuildNewRoute(cNlRoute const& route, std::uint16_t flags,
                                        std::uint32_t seq) {
  return BuildRoute(RTM_NEWROUTE, flags, route, seq);
}

void AppendNewRoute(std::vector<std::uint8_t>& buf, cNlRoute const& route, std::uint16_t flags,
                    std::uint32_t seq) {
  PutRoute(buf, RTM_NEWROUTE, flags, route, seq);
}

void AppendDelRoute(std::vector<std::uint8_t>& buf, cNlRoute const& route, std::uint32_t seq) {
  PutRoute(buf, RTM_DELROUTE, 0, route, seq);
}

std::vector<std::uint8_t> BuildDelRoute(cNlRoute const& route, std::uint32_t seq) {
  return BuildRoute(RTM_DELROUTE, NLM_F_ACK, route, seq);
}

std::vector<std::uint8_t> BuildRouteDump(std::uint32_t seq) {
  std::vector<std::uint8_t> buf(kBuildBuffer);
  nlmsghdr* nlh = mnl_nlmsg_put_header(buf.data());
  nlh->nlmsg_type = RTM_GETROUTE;
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  nlh->nlmsg_seq = seq;
  auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
  rtm->rtm_family = AF_INET;
  buf.resize(nlh->nlmsg_len);
  return buf;
}

bool ParseRoute(const std::uint8_t* payload, std::size_t len, cNlRoute& out) {
  if (len < sizeof(rtmsg)) return false;
  rtmsg rtm;
  std::memcpy(&rtm, payload, sizeof rtm);
  if (rtm.rtm_family != AF_INET) return false;
  cNlRoute r;
  r.dstLen = rtm.rtm_dst_len;
  r.type = rtm.rtm_type;
  r.protocol = rtm.rtm_protocol;
  r.scope = rtm.rtm_scope;
  r.table = rtm.rtm_table;
  std::size_t off = NLMSG_ALIGN(sizeof(rtmsg));
  if (off > len) off = len;
  bool ok = WalkAttributes(payload + off, len - off,
                           [&](std::uint16_t type, const std::uint8_t* data, std::size_t n) {
                             if (n < 4) return;
                             std::uint32_t v = ReadU32(data);
                             switch (type) {
                               case RTA_DST:
                                 r.dst = ntohl(v);
                                 break;
                               case RTA_GATEWAY:
                                 r.gateway = ntohl(v);
                                 break;
                               case RTA_PREFSRC:
                                 r.prefsrc = ntohl(v);
                                 break;
                               case RTA_OIF:
                                 r.oif = v;
                                 break;
                               case RTA_TABLE:
                                 r.table = v;
                                 break;
                               case RTA_PRIORITY:
                                 r.priority = v;
                                 r.hasPriority = true;
                                 break;
                               default:
                                 break;
                             }
                           });
  if (!ok || r.dstLen > 32) return false;
  out = r;
  return true;
}

cNlResult ParseReply(const std::uint8_t* data, std::size_t len, std::uint32_t seq,
                     std::vector<cNlRoute>* routes) {
  cNlResult res;
  std::string malformed = WalkMessages(
      data, len, [&](nlmsghdr const& h, const std::uint8_t* payload, std::size_t plen) {
        if (h.nlmsg_seq != seq) return true;  // a late answer to an earlier request
        if (h.nlmsg_type == NLMSG_DONE && plen < sizeof(std::int32_t)) {
          // An old kernel ends a dump with an empty NLMSG_DONE.
          res.status = cNlResult::kDone;
          return false;
        }
        if (h.nlmsg_type == NLMSG_ERROR || h.nlmsg_type == NLMSG_DONE) {
          res = ParseErrorPayload(h, payload, plen);
          return false;
        }
        if (h.nlmsg_type == RTM_NEWROUTE && routes != nullptr) {
          cNlRoute r;
          if (ParseRoute(payload, plen, r)) routes->push_back(r);
        }
        // A single message that is neither an ack nor part of a dump ends it.
        if (h.nlmsg_flags & NLM_F_MULTI) return true;
        res.status = cNlResult::kDone;
        return false;
      });
  if (!malformed.empty()) {
    res = cNlResult();
    res.status = cNlResult::kMalformed;
    res.message = std::move(malformed);
  }
  return res;
}

bool ParseAcks(const std::uint8_t* data, std::size_t len, std::uint32_t firstSeq,
               std::uint32_t count, std::vector<cNlAck>& acks, std::string& malformed) {
  std::string bad;
  malformed = WalkMessages(data, len,
                           [&](nlmsghdr const& h, const std::uint8_t* payload, std::size_t plen) {
                             // Unsigned difference: a batch may wrap past the largest number.
                             if (h.nlmsg_type != NLMSG_ERROR || h.nlmsg_seq - firstSeq >= count)
                               return true;
                             cNlResult res = ParseErrorPayload(h, payload, plen);
                             if (res.status == cNlResult::kMalformed) {
                               bad = "answer " + std::to_string(h.nlmsg_seq) + ": " + res.message;
                               return false;
                             }
                             acks.push_back(cNlAck{h.nlmsg_seq, res.error, std::move(res.message)});
                             return true;
                           });
  if (malformed.empty()) malformed = std::move(bad);
  return malformed.empty();
}

bool ParseNotifications(const std::uint8_t* data, std::size_t len, std::uint32_t ownPort,
                        cNlNews& news, std::string& malformed) {
  malformed = WalkMessages(
      data, len, [&](nlmsghdr const& h, const std::uint8_t* payload, std::size_t plen) {
        switch (h.nlmsg_type) {
          case RTM_NEWLINK:
          case RTM_DELLINK:
          case RTM_NEWADDR:
          case RTM_DELADDR:
            news.linkChanged = true;
            break;
          case RTM_NEWROUTE:
          case RTM_DELROUTE: {
            cNlRoute r;
            if (h.nlmsg_pid == ownPort || !ParseRoute(payload, plen, r) ||
                r.table != RT_TABLE_MAIN) {
              break;
            }
            bool const ours = h.nlmsg_type == RTM_DELROUTE && r.protocol == kRouteProtocol;
            (ours ? news.oursGone : news.othersChanged) = true;
            break;
          }
          default:
            break;
        }
        return true;
      });
  return malformed.empty();
}

}  // namespace nl
}  // namespace halproxy

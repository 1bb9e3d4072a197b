// Route messages of rtnetlink, built and parsed without any I/O so the parser
// can be fuzzed with arbitrary bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace halproxy {
namespace nl {

// Our routes carry this protocol number, so `ip route` shows which routes the
// proxy installed ("proto 200") and the proxy never removes or counts a route
// somebody else made. Numbers above RTPROT_STATIC are free for route daemons;
// 200 is assigned neither in linux/rtnetlink.h nor in iproute2's rt_protos
// (188, say, would read as "proto ospf").
constexpr std::uint8_t kRouteProtocol = 200;

// A route message in the kernel's terms; addresses in host order.
struct cNlRoute {
  std::uint32_t dst = 0;
  std::uint8_t dstLen = 0;
  std::uint8_t type = 0;      // RTN_UNICAST, RTN_UNREACHABLE, ...
  std::uint8_t protocol = 0;  // RTPROT_*
  std::uint8_t scope = 0;     // RT_SCOPE_*
  std::uint32_t table = 0;    // RT_TABLE_MAIN, ...
  std::uint32_t gateway = 0;  // 0: none
  std::uint32_t prefsrc = 0;  // 0: none
  std::uint32_t oif = 0;      // 0: none
  std::uint32_t priority = 0;
  bool hasPriority = false;  // a removal without it matches any metric
};

// No route message we build is longer, whatever its attributes.
constexpr std::size_t kRouteMessageMax = 256;

// One message each; flags are NLM_F_* besides NLM_F_REQUEST, which is always set.
[[nodiscard]] std::vector<std::uint8_t> BuildNewRoute(cNlRoute const& route, std::uint16_t flags,
                                                      std::uint32_t seq);
// The same message appended to buf, so many of them go in one datagram.
void AppendNewRoute(std::vector<std::uint8_t>& buf, cNlRoute const& route, std::uint16_t flags,
                    std::uint32_t seq);
void AppendDelRoute(std::vector<std::uint8_t>& buf, cNlRoute const& route, std::uint32_t seq);
[[nodiscard]] std::vector<std::uint8_t> BuildDelRoute(cNlRoute const& route, std::uint32_t seq);
[[nodiscard]] std::vector<std::uint8_t> BuildRouteDump(std::uint32_t seq);

struct cNlResult {
  enum Status { kMore, kDone, kMalformed } status = kMore;
  int error = 0;        // 0 or a negative errno (from NLMSG_ERROR or NLMSG_DONE)
  std::string message;  // the kernel's extended-ack text, or what was malformed
};

// Parses one datagram of answers to the request with sequence number seq
// (messages with other numbers are stale and skipped). IPv4 route messages
// are appended to routes when it is not null. kMore: the answer goes on in
// the next datagram.
[[nodiscard]] cNlResult ParseReply(const std::uint8_t* data, std::size_t len, std::uint32_t seq,
                                   std::vector<cNlRoute>* routes);

// The answer to one request of a batch: error 0 is the ack of a success.
struct cNlAck {
  std::uint32_t seq = 0;
  int error = 0;        // 0 or a negative errno
  std::string message;  // the kernel's extended-ack text
};

// Parses one datagram of answers to the count requests numbered firstSeq,
// firstSeq + 1, ... (wrapping past 2^32): appends each NLMSG_ERROR among them
// to acks, in order; messages with other numbers are stale and skipped. False
// when the datagram is malformed, with what in malformed; the acks before it
// are kept.
[[nodiscard]] bool ParseAcks(const std::uint8_t* data, std::size_t len, std::uint32_t firstSeq,
                             std::uint32_t count, std::vector<cNlAck>& acks,
                             std::string& malformed);

// What a datagram of the kernel's notifications (links, IPv4 addresses and
// routes) means to the proxy. ownPort: the port of the socket the proxy makes
// its own changes through, whose notifications say nothing new.
struct cNlNews {
  bool oursGone = false;       // a route of our protocol in the main table was deleted
  bool othersChanged = false;  // another route of the main table came, went or was replaced
  bool linkChanged = false;    // a link or an address came, went or changed state
};
// False when the datagram is malformed, with what in malformed; what was
// read before it still counts in news.
bool ParseNotifications(const std::uint8_t* data, std::size_t len, std::uint32_t ownPort,
                        cNlNews& news, std::string& malformed);

// The route of an RTM_NEWROUTE message's payload (struct rtmsg and its
// attributes); false for another family or a malformed payload.
[[nodiscard]] bool ParseRoute(const std::uint8_t* payload, std::size_t len, cNlRoute& out);

}  // namespace nl
}  // namespace halproxy

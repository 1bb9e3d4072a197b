// halproxy's rtnetlink parsers (one request's answer, a batch's acks, the
// kernel's notifications) on arbitrary datagrams, as whatever answers on the
// netlink socket sends them. Bytes 0..3: the sequence number of the request
// being answered (LE); the rest is one datagram.
#include <vector>

#include "fuzz_check.h"
#include "netlink_codec.h"

namespace nl = halproxy::nl;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 4) return 0;
  const std::uint32_t seq =
      data[0] | data[1] << 8 | data[2] << 16 | static_cast<std::uint32_t>(data[3]) << 24;
  const std::uint8_t* datagram = data + 4;
  const std::size_t len = size - 4;
  std::vector<nl::cNlRoute> routes;
  nl::cNlResult r = nl::ParseReply(datagram, len, seq, &routes);
  if (r.status == nl::cNlResult::kMalformed) FUZZ_CHECK(!r.message.empty());
  FUZZ_CHECK(r.error <= 0);
  // Every route the parser returns can be sent back to the kernel.
  for (nl::cNlRoute const& route : routes) {
    FUZZ_CHECK(route.dstLen <= 32 && !nl::BuildNewRoute(route, 0, seq).empty());
  }
  // The same datagram as answers to a batch of 16 requests around seq, and
  // as kernel notifications (the first bytes naming our port).
  std::vector<nl::cNlAck> acks;
  std::string malformed;
  (void)nl::ParseAcks(datagram, len, seq - 8, 16, acks, malformed);
  nl::cNlNews news;
  (void)nl::ParseNotifications(datagram, len, seq, news, malformed);
  return 0;
}

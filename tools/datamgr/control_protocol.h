// Control requests of datactl to the data manager: request frames with these
// op codes and bodies, answered by a reply with a result code and a text.
// A pure codec (docs/protocol.md, "Data store", control requests).
#pragma once

#include <cstdint>
#include <string>

#include "kest/serialize.h"

namespace datamgr {
namespace ctl {

// Apart from the data client ops (1..6) so a stray frame is never mistaken.
enum Op : std::uint16_t {
  kOpSetWanSetup = 101,
  kOpRouteSet = 102,
  kOpRouteDel = 103,
  kOpDump = 104,
  kOpList = 105,
};

// Result codes of a reply.
constexpr std::int32_t kOk = 0;
constexpr std::int32_t kRefused = 1;       // well-formed, but not possible (unknown route, ...)
constexpr std::int32_t kBadRequest = 2;    // body does not decode or unknown op
constexpr std::int32_t kNotPermitted = 3;  // the peer may not change the store

// The reply text is for people; a longer one is cut so the reply fits a frame.
constexpr std::size_t kMaxReplyText = 60 * 1024;

struct cRequest {
  Op op = kOpList;
  std::string setup;                                    // set-wan-setup, route-set, route-del
  std::string key;                                      // route-set, route-del
  std::uint32_t network = 0, netmask = 0, gateway = 0;  // route-set
  std::uint8_t selector = 0;                            // route-set
  std::string description;                              // route-set
  std::string dir;                                      // dump, list (empty: every directory)
};

struct cReply {
  std::int32_t rc = kOk;
  std::string text;
};

void Encode(cRequest const& req, kest::cSerializeBuffer& out);
// op comes from the frame; false with a reason for a body that does not fit it.
bool Decode(std::uint16_t op, kest::cSerializeBuffer& in, cRequest& req, std::string& error);
void Encode(cReply const& reply, kest::cSerializeBuffer& out);
bool Decode(kest::cSerializeBuffer& in, cReply& reply, std::string& error);

}  // namespace ctl
}  // namespace datamgr

// Framing: a pure codec, no I/O. On the wire every frame is
//   u32 length (LE, of what follows) | u8 kind | u32 id (LE) | u16 op (LE) | body
// and the length is bounded by kMaxFrame.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kest/serialize.h"

namespace kest {

// 64 KiB is ample for the largest message (a data-store directory snapshot
// of a device's records) and bounds what one peer can make us buffer.
constexpr std::uint32_t kMaxFrame = 64 * 1024;
constexpr std::size_t kFrameHeader = 4 + 1 + 4 + 2;

struct cFrame {
  enum Kind : std::uint8_t { kRequest = 1, kReply = 2, kEvent = 3 };
  std::uint8_t kind = kEvent;
  std::uint32_t id = 0;  // request id, echoed in the reply; 0 for events
  std::uint16_t op = 0;  // operation code of the protocol on top
  cSerializeBuffer body;
};

void EncodeFrame(cFrame const& frame, std::vector<std::uint8_t>& out);  // appends

// Incremental reader: feed bytes as they arrive, take whole frames out.
class cFrameReader {
 public:
  enum Result { kNeedMore, kFrame, kError };
  void Feed(const std::uint8_t* data, std::size_t len);
  // kError (with a reason) on an oversized length or an unknown kind; the
  // connection is then beyond repair and must be closed.
  Result Next(cFrame& out, std::string& error);
  std::size_t Buffered() const { return m_buf.size() - m_pos; }

 private:
  std::vector<std::uint8_t> m_buf;
  std::size_t m_pos = 0;
};

}  // namespace kest

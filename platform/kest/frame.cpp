#include "kest/frame.h"

#include "kest/format.h"

namespace kest {
namespace {

// Bytes counted by the length field before the body: kind, id, op.
constexpr std::uint32_t kAfterLength = 1 + 4 + 2;

// Once this much of the buffer has been consumed it is dropped, so a long
// connection does not keep every byte it ever received.
constexpr std::size_t kCompactAfter = 16 * 1024;

std::uint32_t LoadU32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

void PutU32(std::vector<std::uint8_t>& out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

bool KnownKind(std::uint8_t kind) {
  return kind == cFrame::kRequest || kind == cFrame::kReply || kind == cFrame::kEvent;
}

}  // namespace

void EncodeFrame(cFrame const& frame, std::vector<std::uint8_t>& out) {
  std::size_t body = frame.body.Size();
  out.reserve(out.size() + kFrameHeader + body);
  PutU32(out, static_cast<std::uint32_t>(kAfterLength + body));
  out.push_back(frame.kind);
  PutU32(out, frame.id);
  out.push_back(static_cast<std::uint8_t>(frame.op));
  out.push_back(static_cast<std::uint8_t>(frame.op >> 8));
  out.insert(out.end(), frame.body.Data(), frame.body.Data() + body);
}

void cFrameReader::Feed(const std::uint8_t* data, std::size_t len) {
  if (m_pos >= kCompactAfter || (m_pos > 0 && m_pos == m_buf.size())) {
    m_buf.erase(m_buf.begin(), m_buf.begin() + static_cast<std::ptrdiff_t>(m_pos));
    m_pos = 0;
  }
  m_buf.insert(m_buf.end(), data, data + len);
}

cFrameReader::Result cFrameReader::Next(cFrame& out, std::string& error) {
  std::size_t avail = Buffered();
  if (avail < 4) return kNeedMore;
  const std::uint8_t* p = m_buf.data() + m_pos;
  std::uint32_t len = LoadU32(p);
  // Judge the header as soon as it is there: a bad length or kind is fatal
  // and waiting for the rest of a bogus frame would only buffer garbage.
  if (len > kMaxFrame) {
    error = FormatString("frame length %u exceeds the limit of %u bytes", len, kMaxFrame);
    return kError;
  }
  if (len < kAfterLength) {
    error = FormatString("frame length %u is shorter than the %u-byte header", len, kAfterLength);
    return kError;
  }
  if (avail >= 5 && !KnownKind(p[4])) {
    error = FormatString("unknown frame kind %u", static_cast<unsigned>(p[4]));
    return kError;
  }
  if (avail < 4 + static_cast<std::size_t>(len)) return kNeedMore;
  out.kind = p[4];
  out.id = LoadU32(p + 5);
  out.op = static_cast<std::uint16_t>(p[9] | p[10] << 8);
  out.body = cSerializeBuffer(p + kFrameHeader, len - kAfterLength);
  m_pos += 4 + static_cast<std::size_t>(len);
  return kFrame;
}

}  // namespace kest

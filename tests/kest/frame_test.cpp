#include "kest/frame.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

kest::cFrame MakeFrame(std::uint8_t kind, std::uint32_t id, std::uint16_t op, std::string body) {
  kest::cFrame f;
  f.kind = kind;
  f.id = id;
  f.op = op;
  f.body.Write(body.data(), body.size());
  return f;
}

std::string Body(kest::cFrame const& f) {
  return std::string(reinterpret_cast<char const*>(f.body.Data()), f.body.Size());
}

TEST(Frame, WireLayoutIsLittleEndian) {
  std::vector<std::uint8_t> out;
  kest::EncodeFrame(MakeFrame(kest::cFrame::kReply, 0x01020304, 0x0506, "ab"), out);
  std::vector<std::uint8_t> want = {9, 0, 0, 0, 2, 4, 3, 2, 1, 6, 5, 'a', 'b'};
  EXPECT_EQ(out, want);
}

TEST(FrameReader, DecodesWhateverTheChunking) {
  std::vector<kest::cFrame> sent = {
      MakeFrame(kest::cFrame::kRequest, 1, 7, ""),
      MakeFrame(kest::cFrame::kEvent, 0, 65535, "event body"),
      MakeFrame(kest::cFrame::kReply, 0xffffffff, 2,
                std::string(kest::kMaxFrame - (kest::kFrameHeader - 4), 'x')),  // largest allowed
  };
  std::vector<std::uint8_t> wire;
  for (auto const& f : sent) kest::EncodeFrame(f, wire);

  for (std::size_t chunk :
       {std::size_t{1}, std::size_t{3}, std::size_t{11}, std::size_t{4096}, wire.size()}) {
    SCOPED_TRACE(chunk);
    kest::cFrameReader reader;
    std::vector<kest::cFrame> got;
    std::string error;
    for (std::size_t pos = 0; pos < wire.size(); pos += chunk) {
      reader.Feed(wire.data() + pos, std::min(chunk, wire.size() - pos));
      kest::cFrame f;
      kest::cFrameReader::Result r;
      while ((r = reader.Next(f, error)) == kest::cFrameReader::kFrame) got.push_back(f);
      ASSERT_EQ(r, kest::cFrameReader::kNeedMore) << error;
    }
    ASSERT_EQ(got.size(), sent.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
      EXPECT_EQ(got[i].kind, sent[i].kind);
      EXPECT_EQ(got[i].id, sent[i].id);
      EXPECT_EQ(got[i].op, sent[i].op);
      EXPECT_EQ(Body(got[i]), Body(sent[i]));
    }
    EXPECT_EQ(reader.Buffered(), 0u);
  }
}

TEST(FrameReader, RejectsBadHeadersWithoutWaitingForTheBody) {
  struct Case {
    std::vector<std::uint8_t> header;
    char const* error;
  };
  Case cases[] = {
      {{0x01, 0x00, 0x01, 0x00}, "frame length 65537 exceeds the limit of 65536 bytes"},
      {{0xff, 0xff, 0xff, 0xff}, "frame length 4294967295 exceeds the limit"},
      {{0x06, 0x00, 0x00, 0x00}, "frame length 6 is shorter than the 7-byte header"},
      {{0x07, 0x00, 0x00, 0x00, 0x00}, "unknown frame kind 0"},
      {{0x20, 0x00, 0x00, 0x00, 'G'}, "unknown frame kind 71"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.error);
    // A good frame before the garbage is still delivered.
    std::vector<std::uint8_t> wire;
    kest::EncodeFrame(MakeFrame(kest::cFrame::kEvent, 0, 1, "ok"), wire);
    wire.insert(wire.end(), c.header.begin(), c.header.end());
    kest::cFrameReader reader;
    reader.Feed(wire.data(), wire.size());
    kest::cFrame f;
    std::string error;
    ASSERT_EQ(reader.Next(f, error), kest::cFrameReader::kFrame);
    EXPECT_EQ(Body(f), "ok");
    ASSERT_EQ(reader.Next(f, error), kest::cFrameReader::kError);
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
    // The reader stays broken: the stream cannot be resynchronised.
    EXPECT_EQ(reader.Next(f, error), kest::cFrameReader::kError);
  }
}

}  // namespace

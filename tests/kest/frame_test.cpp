#include "kest/frame.h"

#include <gtest/gtest.h>

#include <sstream>

#include "kest/access_point.h"
#include "test_support.h"

namespace {

using kesttest::Bytes;
using kesttest::Wire;

TEST(Frame, LittleEndianOnTheWireAndDecodedWhateverTheChunking) {
  EXPECT_EQ(Wire(kest::cFrame::kReply, 0x01020304, 0x0506, "ab"),
            (Bytes{9, 0, 0, 0, 2, 4, 3, 2, 1, 6, 5, 'a', 'b'}));
  std::string const largest(kest::kMaxFrame - (kest::kFrameHeader - 4), 'x');
  Bytes wire;
  for (Bytes const& f :
       {Wire(kest::cFrame::kRequest, 1, 7, ""), Wire(kest::cFrame::kEvent, 0, 65535, "ev"),
        Wire(kest::cFrame::kReply, 0xffffffff, 2, largest)})
    wire.insert(wire.end(), f.begin(), f.end());
  for (std::size_t chunk : {1, 3, 11, 4096, 200000}) {
    kest::cFrameReader reader;
    std::vector<std::string> got;
    for (std::size_t pos = 0; pos < wire.size(); pos += chunk) {
      reader.Feed(wire.data() + pos, std::min(chunk, wire.size() - pos));
      kest::cFrame f;
      std::string error;
      kest::cFrameReader::Result r;
      while ((r = reader.Next(f, error)) == kest::cFrameReader::kFrame)
        got.push_back(kesttest::Describe(f));
      ASSERT_EQ(r, kest::cFrameReader::kNeedMore) << error;
    }
    std::vector<std::string> const want = {"1 1 7 ", "3 0 65535 ev", "2 4294967295 2 " + largest};
    EXPECT_EQ(got, want) << "chunks of " << chunk;
    EXPECT_EQ(reader.Buffered(), 0u);
  }
}

TEST(FrameReader, RejectsBadHeadersWithoutWaitingForTheBody) {
  std::pair<Bytes, char const*> const cases[] = {
      {{0x01, 0x00, 0x01, 0x00}, "frame length 65537 exceeds the limit of 65536 bytes"},
      {{0xff, 0xff, 0xff, 0xff}, "frame length 4294967295 exceeds the limit"},
      {{0x06, 0x00, 0x00, 0x00}, "frame length 6 is shorter than the 7-byte header"},
      {{0x20, 0x00, 0x00, 0x00, 'G'}, "unknown frame kind 71"},
  };
  for (auto const& [header, message] : cases) {
    Bytes wire = Wire(kest::cFrame::kEvent, 0, 1, "ok");  // still delivered
    wire.insert(wire.end(), header.begin(), header.end());
    kest::cFrameReader reader;
    reader.Feed(wire.data(), wire.size());
    kest::cFrame f;
    std::string error;
    ASSERT_EQ(reader.Next(f, error), kest::cFrameReader::kFrame);
    EXPECT_EQ(kesttest::Text(f.body), "ok");
    EXPECT_EQ(reader.Next(f, error), kest::cFrameReader::kError);
    EXPECT_NE(error.find(message), std::string::npos) << error;
    // The stream cannot be resynchronised, so the reader stays broken.
    EXPECT_EQ(reader.Next(f, error), kest::cFrameReader::kError);
  }
}

TEST(AccessPoint, ParsesTcpAndUnixAndNamesMalformedTexts) {
  kest::cAccessPoint ap;
  std::string error;
  for (char const* text : {"127.0.0.1:3710", "0.0.0.0:0", "255.255.255.255:65535", "unix:/s"}) {
    EXPECT_TRUE(kest::cAccessPoint::Parse(text, ap, error)) << error;
    EXPECT_EQ(ap.ToString(), text);
  }
  EXPECT_EQ(ap.path, "/s");
  ASSERT_TRUE(kest::cAccessPoint::Parse("192.168.10.1:80", ap, error));
  EXPECT_EQ(kest::FormatString("%d %x %u", ap.kind == kest::cAccessPoint::kTcp, ap.ip, ap.port),
            "1 c0a80a01 80");
  std::istringstream bad(
      "|127.0.0.1|127.0.0.1:|127.0.0.1:65536|127.0.0.1:-1|127.0.0.1:80x|127.0.0.1: 80|"
      "127.0.0.1:080|127.0.0:80|1.2.3.4.5:80|256.0.0.1:80|01.2.3.4:80|localhost:80| 127.0.0.1:80|"
      "127.0.0.1:80 |unix:|unix:relative/path|unix:/" +
      std::string(200, 'p'));
  for (std::string text; std::getline(bad, text, '|');) {
    EXPECT_FALSE(kest::cAccessPoint::Parse(text, ap, error)) << text;
    EXPECT_NE(error.find("malformed access point \"" + text + "\""), std::string::npos) << error;
  }
}

}  // namespace

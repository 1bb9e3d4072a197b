#include "dataIO/data_protocol.h"

#include <gtest/gtest.h>

#include <random>

namespace dataIO {
namespace proto {
namespace {

cSync SampleSync() {
  cSync s;
  s.dir = "/Config/Network/WanSetups/dsl/Routing/";
  s.tag = 7;
  s.flags = kSyncFull;
  s.entries.push_back({false, "office", {1, 2, 3, 4}});
  s.entries.push_back({true, "old", {}});
  s.entries.push_back({false, "empty", {}});
  return s;
}

template <typename T>
T RoundTrip(T const& in) {
  kest::cSerializeBuffer buf;
  Encode(in, buf);
  T out;
  std::string error;
  EXPECT_TRUE(Decode(buf, out, error)) << error;
  return out;
}

TEST(DataProtocol, EveryMessageSurvivesARoundTrip) {
  cSubscribe sub = RoundTrip(cSubscribe{"/Status/Network/", 42});
  EXPECT_EQ(sub.dir, "/Status/Network/");
  EXPECT_EQ(sub.tag, 42u);
  EXPECT_EQ(RoundTrip(cUnsubscribe{"/a/"}).dir, "/a/");
  EXPECT_EQ(RoundTrip(cDumpRequest{"/tmp"}).dir, "/tmp");
  cDumpResult result = RoundTrip(cDumpResult{"/var/tmp", true});
  EXPECT_EQ(result.dir, "/var/tmp");
  EXPECT_TRUE(result.ok);
  cRefused refused = RoundTrip(cRefused{"x", "why"});
  EXPECT_EQ(refused.reason, "why");

  cSync const sync = SampleSync();
  cSync back = RoundTrip(sync);
  EXPECT_EQ(back.dir, sync.dir);
  EXPECT_EQ(back.tag, 7u);
  EXPECT_EQ(back.flags, kSyncFull);
  EXPECT_EQ(back.entries, sync.entries);
}

TEST(DataProtocol, EveryTruncationAndTrailingByteIsRefused) {
  kest::cSerializeBuffer whole;
  Encode(SampleSync(), whole);
  for (std::size_t len = 0; len < whole.Size(); ++len) {
    kest::cSerializeBuffer cut(whole.Data(), len);
    cSync out;
    std::string error;
    EXPECT_FALSE(Decode(cut, out, error)) << "length " << len;
    EXPECT_FALSE(error.empty());
  }
  kest::cSerializeBuffer longer(whole.Data(), whole.Size());
  longer.WriteU8(0);
  cSync out;
  std::string error;
  EXPECT_FALSE(Decode(longer, out, error));
  EXPECT_NE(error.find("trailing"), std::string::npos) << error;
}

TEST(DataProtocol, HostileHeadersAreRefusedWithAReason) {
  struct Case {
    char const* what;
    std::uint8_t flags;
    std::uint32_t count;
    char const* reason;
  } const cases[] = {
      {"unknown flag", 0x80, 0, "unknown sync flags"},
      {"count beyond the body", 0, 0xFFFFFFFFu, "exceeds the body"},
  };
  for (auto const& c : cases) {
    kest::cSerializeBuffer buf;
    Encode(cSync{"/d/", 0, c.flags, {}}, buf);
    // Patch the count (the last four bytes of an entry-less sync).
    std::vector<std::uint8_t>& bytes = buf.Bytes();
    for (int i = 0; i < 4; ++i) bytes[bytes.size() - 4 + i] = static_cast<std::uint8_t>(c.count >> (8 * i));
    cSync out;
    std::string error;
    EXPECT_FALSE(Decode(buf, out, error)) << c.what;
    EXPECT_NE(error.find(c.reason), std::string::npos) << c.what << ": " << error;
  }
}

TEST(DataProtocol, RandomBytesNeverCrashTheDecoders) {
  std::mt19937 rng(1234);
  for (int round = 0; round < 2000; ++round) {
    std::vector<std::uint8_t> junk(rng() % 64);
    for (auto& b : junk) b = static_cast<std::uint8_t>(rng());
    std::string error;
    kest::cSerializeBuffer a(junk.data(), junk.size());
    cSync sync;
    Decode(a, sync, error);
    kest::cSerializeBuffer b(junk.data(), junk.size());
    cSubscribe sub;
    Decode(b, sub, error);
    kest::cSerializeBuffer c(junk.data(), junk.size());
    cDumpResult result;
    Decode(c, result, error);
  }
}

TEST(DataProtocol, BigSyncsAreChunkedAndJoinedAgain) {
  cSync big;
  big.dir = "/Status/Network/";
  big.tag = 3;
  big.flags = kSyncFull;
  for (int i = 0; i < 50; ++i)
    big.entries.push_back({false, "item" + std::to_string(i), std::vector<std::uint8_t>(100, i)});
  big.entries.push_back({false, "huge", std::vector<std::uint8_t>(2000, 9)});  // alone in a chunk

  std::size_t const maxBody = 1000;
  auto bodies = EncodeSyncChunks(big, maxBody);
  ASSERT_GT(bodies.size(), 5u);
  cSyncAssembler assembler;
  cSync joined;
  for (std::size_t i = 0; i < bodies.size(); ++i) {
    cSync chunk;
    std::string error;
    ASSERT_TRUE(Decode(bodies[i], chunk, error)) << error;
    if (chunk.entries.size() > 1) {
      EXPECT_LE(bodies[i].Size(), maxBody);
    }
    EXPECT_EQ((chunk.flags & kSyncMore) != 0, i + 1 < bodies.size());
    auto const result = assembler.Add(std::move(chunk), joined, error);
    EXPECT_TRUE(error.empty()) << error;
    EXPECT_EQ(result == cSyncAssembler::kComplete, i + 1 == bodies.size());
  }
  EXPECT_EQ(joined.flags, kSyncFull);
  EXPECT_EQ(joined.tag, 3u);
  EXPECT_EQ(joined.entries, big.entries);

  // An empty sync is still one body.
  EXPECT_EQ(EncodeSyncChunks(cSync{"/d/", 0, 0, {}}, maxBody).size(), 1u);
}

TEST(DataProtocol, AnInterruptedChunkedSyncIsDroppedAndTheNewOneKept) {
  cSyncAssembler assembler;
  cSync out;
  std::string error;
  EXPECT_EQ(assembler.Add(cSync{"/d/", 1, kSyncFull | kSyncMore, {{false, "a", {1}}}}, out, error),
            cSyncAssembler::kIncomplete);
  EXPECT_EQ(assembler.Add(cSync{"/d/", 2, kSyncFull, {{false, "b", {2}}}}, out, error),
            cSyncAssembler::kComplete);
  EXPECT_NE(error.find("interrupted"), std::string::npos) << error;
  ASSERT_EQ(out.entries.size(), 1u);
  EXPECT_EQ(out.entries[0].name, "b");
}

}  // namespace
}  // namespace proto
}  // namespace dataIO

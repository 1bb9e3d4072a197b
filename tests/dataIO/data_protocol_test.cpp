#include "dataIO/data_protocol.h"

#include <gtest/gtest.h>

namespace dataIO {
namespace proto {
namespace {

// "" when the bytes decode as a sync, else the decoder's reason.
std::string Refusal(std::vector<std::uint8_t> const& bytes) {
  kest::cSerializeBuffer buf(bytes.data(), bytes.size());
  cSync out;
  std::string error = "(no reason given)";
  return Decode(buf, out, error) ? "" : error;
}

// The other messages make the trip in the data client's tests.
TEST(DataProtocol, SyncsSurviveTheTripInChunks) {
  cSync big{"/Status/Network/", 3, kSyncFull, {{true, "old", {}}, {false, "empty", {}}}};
  for (int i = 0; i < 50; ++i)
    big.entries.push_back({false, "item" + std::to_string(i), std::vector<std::uint8_t>(100, i)});
  big.entries.push_back({false, "huge", std::vector<std::uint8_t>(2000, 9)});  // alone in a chunk
  auto bodies = EncodeSyncChunks(big, 1000);
  ASSERT_GT(bodies.size(), 5u);
  cSyncAssembler assembler;
  cSync joined;
  std::string error;
  for (std::size_t i = 0; i < bodies.size(); ++i) {
    cSync chunk;
    ASSERT_TRUE(Decode(bodies[i], chunk, error)) << error;
    EXPECT_LE(chunk.entries.size() > 1 ? bodies[i].Size() : 0, 1000u);  // only a lone entry is over
    EXPECT_EQ((chunk.flags & kSyncMore) != 0, i + 1 < bodies.size());
    EXPECT_EQ(assembler.Add(std::move(chunk), joined, error) == cSyncAssembler::kComplete,
              i + 1 == bodies.size());
    EXPECT_EQ(error, "");
  }
  EXPECT_EQ(joined.flags, kSyncFull);
  EXPECT_EQ(joined.tag, 3u);
  EXPECT_EQ(joined.entries, big.entries);
}

TEST(DataProtocol, GarbageIsRefusedWithAReason) {
  kest::cSerializeBuffer whole, empty;
  Encode(cSync{"/d/", 7, kSyncFull, {{false, "a", {1, 2}}, {true, "b", {}}}}, whole);
  std::vector<std::uint8_t> const bytes = whole.Bytes();
  for (std::size_t len = 0; len < bytes.size(); ++len)
    EXPECT_NE(Refusal({bytes.begin(), bytes.begin() + len}), "") << "cut at " << len;
  // An entry-less sync ends in its flags byte and a four-byte count.
  Encode(cSync{"/d/", 0, 0, {}}, empty);
  std::vector<std::uint8_t> longer = bytes, flags = empty.Bytes(), count = empty.Bytes();
  longer.push_back(0);
  flags[flags.size() - 5] = 0x80;
  std::fill(count.end() - 4, count.end(), 0xFF);
  std::pair<std::vector<std::uint8_t>, char const*> const cases[] = {
      {longer, "trailing"}, {flags, "unknown sync flags"}, {count, "exceeds the body"}};
  for (auto const& c : cases)
    EXPECT_NE(Refusal(c.first).find(c.second), std::string::npos) << Refusal(c.first);
}

}  // namespace
}  // namespace proto
}  // namespace dataIO

#include <gtest/gtest.h>

#include <vector>

#include "kest/types.h"
#include "values/db_item.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes Image(kest::ISerialize const& v) {
  kest::cSerializeBuffer buf;
  EXPECT_TRUE(v.Serialize(buf));
  return buf.Bytes();
}

kest::cSerializeBuffer BufferOf(Bytes const& b) { return kest::cSerializeBuffer(b.data(), b.size()); }

}  // namespace

TEST(IntegerText, FormatsTable) {
  const kest::s_uint8 u8_10(10), u8_255(255);
  const kest::s_uint16 u16_max(65535);
  const kest::s_uint32 u32_4096(4096);
  const kest::s_uint64 u64_0(0), u64_max(~0ull);
  const kest::s_int8 i8_neg(-1), i8_pos(100);
  const kest::s_bool yes(true), no;
  struct Row { kest::ISerialize const& v; const char* format; const char* text; };
  const Row rows[] = {
      {u8_10, "hex", "0x0A"}, {u8_10, "hex2", "0A"}, {u8_10, "", "10"}, {u8_10, "04", "0010"},
      {u8_255, "hex", "0xFF"}, {u8_255, "hex2", "FF"}, {u8_255, "", "255"},
      {u16_max, "16", "0000000000065535"}, {u16_max, "04", "65535"},
      {u32_4096, "hex", "0x1000"}, {u32_4096, "02", "4096"},
      {u64_0, "hex", "0x00"}, {u64_0, "16", "0000000000000000"},
      {u64_max, "", "18446744073709551615"},
      // Formats are matched exactly; anything else is plain decimal.
      {u8_10, "HEX", "10"}, {u8_10, " hex", "10"}, {u8_10, "4", "10"}, {u8_10, "01", "10"},
      {u8_10, "17", "10"}, {u8_10, "x4", "10"},
      {i8_neg, "", "65535"}, {i8_neg, "hex", "0xFFFF"}, {i8_pos, "hex", "0x64"},
      {yes, "hex", "true"}, {yes, "", "true"}, {no, "04", "false"},
  };
  for (auto const& r : rows)
    EXPECT_EQ(r.v.ToString(r.format), r.text) << r.v.TypeName() << " format '" << r.format << "'";
}

TEST(ValueBinary, LittleEndianImagesAndRoundTrips) {
  const kest::s_uint16 u16(0x1234);
  const kest::s_uint32 u32(0x01020304);
  const kest::s_uint64 u64(0x0102030405060708ull);
  const kest::s_int8 i8(-2);
  const kest::s_bool b(true);
  const kest::s_string str("ab");
  const kest::s_socket_addr addr("10.0.0.1", 80);
  EXPECT_EQ(Image(kest::s_uint8(10)), (Bytes{1, 0x0A}));
  EXPECT_EQ(Image(u16), (Bytes{1, 0x34, 0x12}));
  EXPECT_EQ(Image(u32), (Bytes{1, 4, 3, 2, 1}));
  EXPECT_EQ(Image(u64), (Bytes{1, 8, 7, 6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(Image(i8), (Bytes{1, 0xFE}));
  EXPECT_EQ(Image(b), (Bytes{1, 1}));
  EXPECT_EQ(Image(str), (Bytes{1, 2, 0, 0, 0, 'a', 'b'}));
  EXPECT_EQ(Image(addr), (Bytes{1, 1, 0, 0, 10, 80, 0}));

  auto roundTrip = [](kest::ISerialize const& in, kest::ISerialize& out) {
    auto buf = BufferOf(Image(in));
    EXPECT_TRUE(out.Deserialize(buf)) << in.TypeName();
    EXPECT_TRUE(buf.AtEnd()) << in.TypeName();
    EXPECT_EQ(out.ToString(""), in.ToString("")) << in.TypeName();
  };
  kest::s_uint16 u16b;
  kest::s_uint32 u32b;
  kest::s_uint64 u64b;
  kest::s_int8 i8b;
  kest::s_bool bb;
  kest::s_string strb;
  kest::s_socket_addr addrb;
  roundTrip(u16, u16b);
  roundTrip(u32, u32b);
  roundTrip(u64, u64b);
  roundTrip(i8, i8b);
  roundTrip(b, bb);
  roundTrip(str, strb);
  roundTrip(addr, addrb);
  EXPECT_EQ(i8b.Get(), -2);
  EXPECT_EQ(addrb, addr);
}

TEST(ValueBinary, RefusesShortBuffersWrongVersionsAndOversizedStrings) {
  struct Row { Bytes bytes; const char* why; };
  const Row rows[] = {
      {{}, "empty"}, {{1, 4, 3}, "short value"}, {{2, 4, 3, 2, 1}, "version 2"},
      {{0, 4, 3, 2, 1}, "version 0"},
  };
  for (auto const& r : rows) {
    kest::s_uint32 v(7);
    auto buf = BufferOf(r.bytes);
    EXPECT_FALSE(v.Deserialize(buf)) << r.why;
    EXPECT_EQ(v.Get(), 7u) << r.why;
  }
  kest::s_string s("keep");
  auto huge = BufferOf({1, 0xFF, 0xFF, 0xFF, 0x7F, 'x'});
  EXPECT_FALSE(s.Deserialize(huge));
  Bytes tooLong{1};
  const std::uint32_t len = kest::s_string::kMaxLength + 1;
  for (int i = 0; i < 4; ++i) tooLong.push_back(static_cast<std::uint8_t>(len >> (8 * i)));
  tooLong.resize(tooLong.size() + len, 'x');
  auto buf = BufferOf(tooLong);
  EXPECT_FALSE(s.Deserialize(buf));
  EXPECT_EQ(s.Get(), "keep");
  kest::cSerializeBuffer out;
  EXPECT_FALSE(kest::s_string(std::string(len, 'x')).Serialize(out));
  EXPECT_EQ(out.Size(), 0u);

  // A read past the end takes nothing, so the reader can report and go on.
  auto partial = BufferOf({1, 2, 3});
  std::uint32_t u = 0;
  EXPECT_FALSE(partial.ReadU32(u));
  EXPECT_EQ(partial.Cursor(), 0u);
}

TEST(SocketAddr, ParsesOnlyStrictDottedQuads) {
  struct Row { const char* text; bool ok; const char* ip; };
  const Row rows[] = {
      {"10.10.0.0", true, "10.10.0.0"}, {"255.255.255.255", true, "255.255.255.255"},
      {"0.0.0.0", true, "0.0.0.0"}, {"192.168.001.1", true, "192.168.1.1"},
      {"256.1.1.1", false, "0.0.0.0"}, {"1.2.3", false, "0.0.0.0"}, {"1.2.3.4.5", false, "0.0.0.0"},
      {"1.2.3.4 ", false, "0.0.0.0"}, {" 1.2.3.4", false, "0.0.0.0"}, {"1..3.4", false, "0.0.0.0"},
      {"1.2.3.-4", false, "0.0.0.0"}, {"1.2.3.0004", false, "0.0.0.0"}, {"", false, "0.0.0.0"},
      {"a.b.c.d", false, "0.0.0.0"}, {"1.2.3.4:80", false, "0.0.0.0"},
  };
  for (auto const& r : rows) {
    kest::s_socket_addr a("9.9.9.9", 1);
    EXPECT_EQ(a.InitFromString(r.text, 0), r.ok) << r.text;
    EXPECT_EQ(a.GetIPString(), r.ip) << r.text;
  }
  kest::s_socket_addr net("10.20.0.0", 0), mask(0xFFFF0000u, 0);
  EXPECT_EQ(net.GetIP(), 0x0A140000u);
  EXPECT_EQ(mask.GetIPString(), "255.255.0.0");
  EXPECT_EQ(kest::s_socket_addr("1.2.3.4", 3711).ToString(""), "1.2.3.4:3711");
}

namespace {
struct Bare : kest::ISerialize {
  KEST_GARBAGE_COLLECTABLE
  bool Serialize(kest::cSerializeBuffer&) const override { return true; }
  bool Deserialize(kest::cSerializeBuffer&) override { return true; }
  std::string ToString(std::string const&) const override { return ""; }
  using kest::ISerialize::Serialize;
  using kest::ISerialize::Deserialize;
};
struct Item : dataIO::cDBItem {
  KEST_GARBAGE_COLLECTABLE
  Item() : cDBItem("Thing", "/Dir/") {}
  kest::s_uint16 m_v;
  bool Serialize(kest::cSerializeBuffer& b) const override { return m_v.Serialize(b); }
  bool Deserialize(kest::cSerializeBuffer& b) override { return m_v.Deserialize(b); }
  std::string ToString(std::string const&) const override { return ""; }
  cDBItem* Clone() const override { return new Item(*this); }
};
}  // namespace

TEST(SerializeBase, NamesVersionsAndXmlDefaults) {
  EXPECT_EQ(Bare().TypeName(), "?");
  EXPECT_EQ(Bare().Version(), 0);
  EXPECT_EQ(kest::s_basic_int<std::uint8_t>().TypeName(), "s_basic_int");
  EXPECT_EQ(kest::s_uint64().TypeName(), "s_uint64");
  EXPECT_EQ(kest::s_int8().Version(), 1);

  kest::s_uint8 v;
  xmlNode* node = nullptr;
  std::string error;
  EXPECT_FALSE(v.Serialize(node, "v"));
  EXPECT_FALSE(v.Deserialize(node, error));
  EXPECT_EQ(error, "Deserialize(xml) not implemented");
  EXPECT_EQ(node, nullptr);
}

TEST(SerializeBase, ItemDefaultsAndContentEquality) {
  Item a, b;
  EXPECT_EQ(a.GetName(), "Thing");
  EXPECT_EQ(a.GetDir(), "/Dir/");
  EXPECT_FALSE(a.HasKey());
  EXPECT_EQ(a.GetKey(), "");
  EXPECT_EQ(a.GetRank(), 0);
  kest::cMap<kest::s_string, kest::s_string> info;
  EXPECT_FALSE(a.GetInfo(info));
  EXPECT_TRUE(a.Equals(b));
  b.m_v.Set(3);
  EXPECT_FALSE(a.Equals(b));
}

TEST(SerializeBase, LiveCountFollowsHeapObjects) {
  const long before = kest::GC::LiveCount();
  auto* v = new kest::s_uint32(5);
  dataIO::cDBItem* item = new Item;
  item->AddRef();
  dataIO::cDBItem* copy = item->Clone();
  EXPECT_EQ(copy->GetRefCount(), 1);  // a copy is a new object, not another reference
  EXPECT_EQ(kest::GC::LiveCount(), before + 3);
  delete v;
  copy->Release();
  EXPECT_EQ(kest::GC::LiveCount(), before + 1);
  item->Release();
  EXPECT_EQ(item->GetRefCount(), 1);
  EXPECT_EQ(kest::GC::LiveCount(), before + 1);
  item->Release();
  EXPECT_EQ(kest::GC::LiveCount(), before);
}

#include <gtest/gtest.h>

#include <vector>

#include "kest/types.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

using Bytes = std::vector<std::uint8_t>;

namespace {

kest::cSerializeBuffer BufferOf(Bytes const& b) {
  return kest::cSerializeBuffer(b.data(), b.size());
}

// The binary image of v, once it is known to read back whole into a fresh value (the text
// tells a negative s_int8 from its unsigned reading).
template <typename T>
Bytes Image(T const& v) {
  kest::cSerializeBuffer out;
  EXPECT_TRUE(v.Serialize(out));
  auto in = BufferOf(out.Bytes());
  T back;
  EXPECT_TRUE(back.Deserialize(in) && in.AtEnd()) << v.TypeName();
  EXPECT_EQ(back.ToString(""), v.ToString("")) << v.TypeName();
  return out.Bytes();
}

TEST(Values, LittleEndianImagesThatReadBack) {
  EXPECT_EQ(Image(kest::s_uint8(10)), (Bytes{1, 0x0A}));
  EXPECT_EQ(Image(kest::s_uint16(0x1234)), (Bytes{1, 0x34, 0x12}));
  EXPECT_EQ(Image(kest::s_uint32(0x01020304)), (Bytes{1, 4, 3, 2, 1}));
  EXPECT_EQ(Image(kest::s_uint64(0x0102030405060708ull)), (Bytes{1, 8, 7, 6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(Image(kest::s_int8(-2)), (Bytes{1, 0xFE}));
  EXPECT_EQ(Image(kest::s_bool(true)), (Bytes{1, 1}));
  EXPECT_EQ(Image(kest::s_string("ab")), (Bytes{1, 2, 0, 0, 0, 'a', 'b'}));
  EXPECT_EQ(Image(kest::s_socket_addr("10.0.0.1", 80)), (Bytes{1, 1, 0, 0, 10, 80, 0}));
}

// Short buffers are refused with the records made of them, over-long strings on sending (routeIO).
TEST(Values, RefuseWrongVersionsAndOversizedStringsUnchanged) {
  kest::s_uint32 u(7);
  kest::s_bool b(true);
  for (Bytes const& bytes : {Bytes{2, 4, 3, 2, 1}, Bytes{0, 4, 3, 2, 1}}) {
    auto buf = BufferOf(bytes), again = BufferOf(bytes);
    EXPECT_FALSE(u.Deserialize(buf) || b.Deserialize(again)) << int(bytes[0]);
  }
  EXPECT_TRUE(u.Get() == 7u && b.Get());
  kest::s_string s("keep");
  const std::uint32_t len = kest::s_string::kMaxLength + 1;
  Bytes tooLong{1, std::uint8_t(len), std::uint8_t(len >> 8), std::uint8_t(len >> 16), 0};
  tooLong.resize(tooLong.size() + len, 'x');
  for (Bytes const& bytes : {Bytes{1, 0xFF, 0xFF, 0xFF, 0x7F, 'x'}, tooLong}) {
    auto buf = BufferOf(bytes);
    EXPECT_FALSE(s.Deserialize(buf));
    EXPECT_EQ(s.Get(), "keep");
  }
}

TEST(Values, SocketAddrParsesOnlyStrictDottedQuads) {
  EXPECT_EQ(kest::s_socket_addr("192.168.001.1", 0).GetIPString(), "192.168.1.1");
  for (const char* text : {"256.1.1.1", "1.2.3", "1.2.3.4.5", "1.2.3.4 ", "1..3.4", "1.2.3.0004"}) {
    kest::s_socket_addr a("9.9.9.9", 1);
    EXPECT_FALSE(a.InitFromString(text, 0)) << text;
    EXPECT_EQ(a.GetIPString(), "0.0.0.0") << text;
  }
  EXPECT_EQ(kest::s_socket_addr(0xFFFF0000u, 0).GetIPString(), "255.255.0.0");
  EXPECT_EQ(kest::s_socket_addr("1.2.3.4", 3711).ToString(""), "1.2.3.4:3711");
}

}  // namespace

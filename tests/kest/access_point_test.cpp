#include "kest/access_point.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(AccessPoint, ParsesValidTexts) {
  struct Case {
    char const* text;
    kest::cAccessPoint::Kind kind;
    std::uint32_t ip;
    std::uint16_t port;
    char const* path;
  };
  Case cases[] = {
      {"127.0.0.1:3710", kest::cAccessPoint::kTcp, 0x7f000001, 3710, ""},
      {"0.0.0.0:0", kest::cAccessPoint::kTcp, 0, 0, ""},
      {"255.255.255.255:65535", kest::cAccessPoint::kTcp, 0xffffffff, 65535, ""},
      {"192.168.10.1:80", kest::cAccessPoint::kTcp, 0xc0a80a01, 80, ""},
      {"unix:/run/routemgr.sock", kest::cAccessPoint::kUnix, 0, 0, "/run/routemgr.sock"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    kest::cAccessPoint ap;
    std::string error;
    ASSERT_TRUE(kest::cAccessPoint::Parse(c.text, ap, error)) << error;
    EXPECT_EQ(ap.kind, c.kind);
    EXPECT_EQ(ap.ip, c.ip);
    EXPECT_EQ(ap.port, c.port);
    EXPECT_EQ(ap.path, c.path);
    EXPECT_EQ(ap.ToString(), c.text);
  }
}

TEST(AccessPoint, RejectsMalformedTextsNamingThem) {
  std::string const cases[] = {
      "",
      "127.0.0.1",
      "127.0.0.1:",
      "127.0.0.1:65536",
      "127.0.0.1:-1",
      "127.0.0.1:80x",
      "127.0.0.1: 80",
      "127.0.0.1:080",
      "127.0.0.1:123456",
      "127.0.0:80",
      "1.2.3.4.5:80",
      "256.0.0.1:80",
      "01.2.3.4:80",
      "1..3.4:80",
      "a.b.c.d:80",
      "localhost:80",
      " 127.0.0.1:80",
      "127.0.0.1:80 ",
      "+1.2.3.4:80",
      "unix:",
      "unix:relative/path",
      "unix:/" + std::string(200, 'p'),
  };
  for (std::string const& text : cases) {
    SCOPED_TRACE(text);
    kest::cAccessPoint ap;
    std::string error;
    EXPECT_FALSE(kest::cAccessPoint::Parse(text, ap, error));
    EXPECT_NE(error.find("malformed access point \"" + text + "\""), std::string::npos) << error;
  }
}

}  // namespace

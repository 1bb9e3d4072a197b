#include "kest/trace.h"

#include <gtest/gtest.h>

#include <string>

#include "kest/format.h"

namespace {

TEST(FormatStringTest, FormatsAnyLength) {
  EXPECT_EQ(kest::FormatString("%s=%d", "x", 42), "x=42");
  std::string big(5000, 'q');
  EXPECT_EQ(kest::FormatString("<%s>", big.c_str()), "<" + big + ">");
  EXPECT_EQ(kest::FormatString("%s", ""), "");
}

TEST(TraceTest, CaptureSeesTheCallSiteAndNestedCapturesRestore) {
  kest::cTraceCapture outer;
  {
    kest::cTraceCapture inner;
    kest::cTracepoint::Call("RouteMgr", "005", 0, "hello", "", "routemgr", 42);
    ASSERT_EQ(inner.Records().size(), 1u);
    EXPECT_EQ(inner.Records()[0].module, "RouteMgr");
    EXPECT_EQ(inner.Records()[0].level, "005");
    EXPECT_EQ(inner.Records()[0].file, "routemgr");
    EXPECT_EQ(inner.Records()[0].line, 42);
  }
  KEST_TRACE("kest", "003", "after %d", 1);
  ASSERT_EQ(outer.Messages(), std::vector<std::string>{"after 1"});
  EXPECT_EQ(outer.Records()[0].file, "trace_test.cpp");  // directory stripped
}

TEST(TraceTest, StderrSinkWritesOneLinePerTraceAndNothingToStdout) {
  struct Case {
    char const* sink;
    char const* maxLevel;
    std::string expect;
  };
  std::vector<Case> cases = {
      {"stderr", "999", "Mod 005 file.cpp:7 two lines\n"},
      {"stderr", "004", ""},  // 005 is above the maximum level
      {"off", "999", ""},
  };
  for (auto const& c : cases) {
    ASSERT_TRUE(kest::cTracepoint::SelectSink(c.sink));
    kest::cTracepoint::SetMaxLevel(c.maxLevel);
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    kest::cTracepoint::Call("Mod", "005", 0, "two\nlines\n", "", "src/file.cpp", 7);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(err, c.expect) << c.sink << " " << c.maxLevel;
  }
  EXPECT_FALSE(kest::cTracepoint::SelectSink("printer"));
  kest::cTracepoint::SelectSink("stderr");
  kest::cTracepoint::SetMaxLevel("999");
}

}  // namespace

// Helpers shared by the kest tests: frames as bytes, traces, and the far end of a
// connection on a plain socket.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "kest/frame.h"
#include "kest/loop.h"
#include "kest/trace.h"
#include "support/poll.h"

namespace kesttest {

using Bytes = std::vector<std::uint8_t>;

// Every kest test starts and ends on a fresh loop.
struct LoopReset : ::testing::EmptyTestEventListener {
  void OnTestStart(::testing::TestInfo const&) override { kest::ResetLoop(); }
  void OnTestEnd(::testing::TestInfo const&) override { kest::ResetLoop(); }
};
inline bool const kLoopReset =
    (::testing::UnitTest::GetInstance()->listeners().Append(new LoopReset), true);

inline Bytes Wire(std::uint8_t kind, std::uint32_t id, std::uint16_t op, std::string const& body) {
  kest::cFrame f{kind, id, op, {}};
  f.body.Write(body.data(), body.size());
  Bytes out;
  kest::EncodeFrame(f, out);
  return out;
}

inline std::string Text(kest::cSerializeBuffer const& b) {
  return std::string(reinterpret_cast<char const*>(b.Data()), b.Size());
}

// "kind id op body"
inline std::string Describe(kest::cFrame const& f) {
  return kest::FormatString("%u %u %u ", f.kind, f.id, f.op) + Text(f.body);
}

// "127.0.0.1:port" for the local end of a TCP socket.
inline std::string LocalAp(int fd) {
  sockaddr_in in{};
  socklen_t len = sizeof in;
  getsockname(fd, reinterpret_cast<sockaddr*>(&in), &len);
  return kest::FormatString("127.0.0.1:%u", ntohs(in.sin_port));
}

// How many traces contain text.
inline std::size_t Traced(kest::cTraceCapture const& traces, std::string const& text) {
  std::size_t n = 0;
  for (auto const& m : traces.Messages()) n += m.find(text) != std::string::npos;
  return n;
}

using testsupport::PumpUntil;

struct RawEnd {
  int fd;
  bool eof = false;
  kest::cFrameReader reader;

  explicit RawEnd(int f = -1) : fd(f) {}
  ~RawEnd() { close(fd); }
  void Send(Bytes const& b) { EXPECT_EQ(write(fd, b.data(), b.size()), ssize_t(b.size())); }
  // Pumps this thread's loop until a whole frame or the end of the connection arrives.
  bool Receive(kest::cFrame& f) {
    std::string error;
    bool got = false;
    PumpUntil([&] {
      std::uint8_t buf[4096];
      ssize_t n;
      while ((n = read(fd, buf, sizeof buf)) > 0) reader.Feed(buf, std::size_t(n));
      eof = eof || n == 0;
      return (got = reader.Next(f, error) == kest::cFrameReader::kFrame) || eof;
    });
    return got;
  }
};

}  // namespace kesttest

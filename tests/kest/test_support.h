// The far end of a kest connection on a plain socket, for tests of whatever
// speaks kest: frames as bytes, a raw client and a raw listener, and traces.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "kest/access_point.h"
#include "kest/format.h"
#include "kest/frame.h"
#include "kest/hello.h"
#include "kest/loop.h"
#include "kest/trace.h"
#include "support/poll.h"

namespace kesttest {

using Bytes = std::vector<std::uint8_t>;
using testsupport::PumpUntil;

// Every test that includes this starts and ends on a fresh loop.
struct LoopReset : ::testing::EmptyTestEventListener {
  void OnTestStart(::testing::TestInfo const&) override { kest::ResetLoop(); }
  void OnTestEnd(::testing::TestInfo const&) override { kest::ResetLoop(); }
};
inline bool const kLoopReset =
    (::testing::UnitTest::GetInstance()->listeners().Append(new LoopReset), true);

inline Bytes Wire(kest::cFrame const& f) {
  Bytes out;
  kest::EncodeFrame(f, out);
  return out;
}
inline Bytes Wire(std::uint8_t kind, std::uint32_t id, std::uint16_t op, std::string const& body) {
  kest::cFrame f{kind, id, op, {}};
  f.body.Write(body.data(), body.size());
  return Wire(f);
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

struct RawEnd {
  int fd;
  bool eof = false;
  kest::cFrameReader reader;
  kest::cFrame frame;  // the last one received

  explicit RawEnd(int f = -1) : fd(f) {}
  ~RawEnd() { close(fd); }
  void Send(Bytes const& b) {
    EXPECT_EQ(send(fd, b.data(), b.size(), MSG_NOSIGNAL), ssize_t(b.size()));
  }
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
  bool ClosedByServer() { return !Receive(frame) && eof; }
};

// A peer process stand-in, connected to a server that runs in this thread's
// loop or in another process.
struct RawClient : RawEnd {
  explicit RawClient(std::string const& accessPoint) {
    kest::cAccessPoint ap;
    std::string error;
    EXPECT_TRUE(kest::cAccessPoint::Parse(accessPoint, ap, error)) << error;
    sockaddr_storage sa{};
    unsigned len = ap.ToSockaddr(sa);
    fd = socket(sa.ss_family, SOCK_STREAM, 0);
    // Loopback and Unix connects complete in the kernel, before any accept.
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&sa), len), 0) << std::strerror(errno);
    fcntl(fd, F_SETFL, O_NONBLOCK);
  }
  std::string Me() const { return LocalAp(fd); }
  // The server's answer to a hello: "accepted", or the refusal's reason.
  std::string Greet(kest::cServiceId const& wanted) {
    Send(Wire(kest::HelloFrame(100, wanted)));
    return Answer();
  }
  std::string Answer() {
    kest::cGreeting g;
    std::string error;
    if (!Receive(frame)) return "none";
    if (frame.kind == kest::cFrame::kReply && kest::DecodeAccept(frame.body, g, error)) {
      return "accepted";
    }
    return kest::DecodeRefusal(frame.body, g, error) ? g.reason : "bad: " + error;
  }
};

// A listening socket on a free port (listen() picks one, on every address);
// the kernel completes handshakes before any accept.
struct Listener : RawEnd {
  Listener() : RawEnd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)) { listen(fd, 4); }
  std::string Ap() const { return LocalAp(fd); }
  // The next connection, its hello answered as self would unless self is null.
  int Accept(kest::cServiceId const* self) {
    RawEnd peer;
    EXPECT_TRUE(PumpUntil([&] {
      return (peer.fd = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;
    }));
    kest::cFrame hello;
    if (self != nullptr && peer.Receive(hello)) peer.Send(Wire(kest::AcceptFrame(hello.id, *self)));
    return std::exchange(peer.fd, -1);
  }
};

}  // namespace kesttest

#include "kest/channel.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kest/loop.h"
#include "kest/trace.h"

namespace {

class ChannelTest : public ::testing::Test, public kest::IChannelHandler {
 protected:
  void SetUp() override {
    kest::ResetLoop();
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    channel.reset(new kest::cChannel(fds[0], kest::s_socket_addr(), "peer", this));
  }
  void TearDown() override {
    channel.reset();
    if (fds[1] >= 0) close(fds[1]);
    kest::ResetLoop();
  }
  void OnFrame(kest::cChannel*, kest::cFrame& frame) override {
    ops.push_back(frame.op);
    if (closeOnFrame) channel->Close("handler closed it");
  }
  void OnChannelClosed(kest::cChannel*, std::string const& reason) override {
    reasons.push_back(reason);
  }
  void PeerWrite(std::vector<std::uint8_t> const& bytes) {
    ASSERT_EQ(write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  static std::vector<std::uint8_t> Frame(std::uint16_t op, std::size_t bodySize = 0) {
    kest::cFrame f;
    f.op = op;
    std::string body(bodySize, 'b');
    f.body.Write(body.data(), body.size());
    std::vector<std::uint8_t> out;
    kest::EncodeFrame(f, out);
    return out;
  }
  bool PeerSeesEof() {
    char c;
    return read(fds[1], &c, 1) == 0;
  }

  int fds[2] = {-1, -1};
  std::unique_ptr<kest::cChannel> channel;
  std::vector<std::uint16_t> ops;
  std::vector<std::string> reasons;
  bool closeOnFrame = false;
  kest::cTraceCapture traces;
};

TEST_F(ChannelTest, BadOrTruncatedInputClosesWithATrace) {
  struct Case {
    std::vector<std::uint8_t> tail;  // after one good frame
    bool peerCloses;
    char const* trace;
  };
  Case cases[] = {
      {{0x01, 0x00, 0x01, 0x00},
       false,
       "closing connection peer: bad frame: frame length 65537 exceeds"},
      {{0x07, 0x00, 0x00, 0x00, 0x09},
       false,
       "closing connection peer: bad frame: unknown frame kind 9"},
      {{0x20, 0x00, 0x00, 0x00, 0x01, 0x02},
       true,
       "closing connection peer: truncated frame: connection closed with 6 bytes"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.trace);
    TearDown();
    SetUp();
    ops.clear();
    reasons.clear();
    traces.Clear();
    std::vector<std::uint8_t> bytes = Frame(5);
    bytes.insert(bytes.end(), c.tail.begin(), c.tail.end());
    PeerWrite(bytes);
    if (c.peerCloses) shutdown(fds[1], SHUT_WR);
    kest::Loop().RunUntilIdle();
    EXPECT_EQ(ops, std::vector<std::uint16_t>{5});
    ASSERT_EQ(reasons.size(), 1u);
    EXPECT_FALSE(channel->IsOpen());
    ASSERT_EQ(traces.Messages().size(), 1u);
    EXPECT_EQ(traces.Messages()[0].rfind(c.trace, 0), 0u) << traces.Messages()[0];
    EXPECT_TRUE(PeerSeesEof());
  }
}

TEST_F(ChannelTest, CloseFromInsideOnFrameStopsDelivery) {
  closeOnFrame = true;
  std::vector<std::uint8_t> bytes = Frame(1);
  std::vector<std::uint8_t> second = Frame(2);
  bytes.insert(bytes.end(), second.begin(), second.end());
  PeerWrite(bytes);
  kest::Loop().RunUntilIdle();
  EXPECT_EQ(ops, std::vector<std::uint16_t>{1});
  EXPECT_EQ(reasons, std::vector<std::string>{"handler closed it"});
  EXPECT_TRUE(traces.Messages().empty());
}

TEST_F(ChannelTest, PeerThatStopsReadingIsDisconnectedAtTheSendLimit) {
  int small = 4096;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  channel->SetSendLimit(32 * 1024);
  kest::cFrame f;
  std::string body(1000, 'x');
  f.body.Write(body.data(), body.size());
  int sent = 0;
  while (sent < 10000 && channel->Send(f)) {
    ++sent;
    kest::Loop().RunUntilIdle();
  }
  EXPECT_LT(sent, 10000);
  EXPECT_FALSE(channel->IsOpen());
  ASSERT_EQ(reasons.size(), 1u);
  ASSERT_EQ(traces.Messages().size(), 1u);
  EXPECT_NE(traces.Messages()[0].find("peer is not reading"), std::string::npos);
  EXPECT_NE(traces.Messages()[0].find("send limit of 32768 bytes"), std::string::npos);
}

TEST_F(ChannelTest, OversizedSendIsRefusedButTheChannelStaysOpen) {
  kest::cFrame f;
  std::string body(kest::kMaxFrame, 'x');
  f.body.Write(body.data(), body.size());
  EXPECT_FALSE(channel->Send(f));
  EXPECT_TRUE(channel->IsOpen());
  ASSERT_EQ(traces.Messages().size(), 1u);
  EXPECT_NE(traces.Messages()[0].find("exceed the frame limit"), std::string::npos);
  f.body.Clear();
  EXPECT_TRUE(channel->Send(f));
}

}  // namespace

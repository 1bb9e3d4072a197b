// One framed connection that owns its socket.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "kest/frame.h"
#include "kest/types.h"

namespace kest {

class cChannel;

class IChannelHandler {
 public:
  virtual void OnFrame(cChannel* channel, cFrame& frame) = 0;
  // After this the channel is closed; it is destroyed later by its owner.
  virtual void OnChannelClosed(cChannel* channel, std::string const& reason) = 0;

 protected:
  ~IChannelHandler() = default;
};

class cChannel {
 public:
  // A client that stops reading its answers may hold this much unsent data
  // before it is disconnected, so it cannot grow our memory without bound.
  static constexpr std::size_t kDefaultSendLimit = 1024 * 1024;

  cChannel(int fd, s_socket_addr peer, std::string peerText, IChannelHandler* handler);
  ~cChannel();
  cChannel(const cChannel&) = delete;
  cChannel& operator=(const cChannel&) = delete;

  // The peer as a serialisable value; ToString("") gives "a.b.c.d:port"
  // (for Unix sockets the peer's "uid=N pid=N").
  ISerialize const& PeerInfo() const { return m_peerInfo; }
  std::string const& PeerText() const { return m_peerText; }

  // Queues a frame; false when the channel is closed (or is closed now
  // because the send limit is exceeded).
  bool Send(cFrame const& frame);
  // Closes the socket once; the handler hears OnChannelClosed.
  void Close(std::string const& reason);
  bool IsOpen() const { return m_fd >= 0; }
  int Fd() const { return m_fd; }
  void SetSendLimit(std::size_t bytes) { m_sendLimit = bytes; }
  std::size_t Pending() const { return m_out.size() - m_outPos; }

  // Blocking helpers for synchronous clients (never used by servers).
  bool FlushBlocking(int timeoutMs);
  void* userData = nullptr;

 private:
  void OnEvents(std::uint32_t events);
  void ReadSome();
  void WriteSome();
  void UpdateInterest();

  int m_fd;
  class cPeerInfo : public ISerialize {
   public:
    KEST_GARBAGE_COLLECTABLE
    std::string text;
    s_socket_addr addr;
    bool Serialize(cSerializeBuffer& b) const override { return addr.Serialize(b); }
    bool Deserialize(cSerializeBuffer& b) override { return addr.Deserialize(b); }
    std::string ToString(std::string const&) const override { return text; }
    using ISerialize::Serialize;
    using ISerialize::Deserialize;
  } m_peerInfo;
  std::string m_peerText;
  IChannelHandler* m_handler;
  cFrameReader m_reader;
  std::vector<std::uint8_t> m_out;
  std::size_t m_outPos = 0;
  std::size_t m_sendLimit = kDefaultSendLimit;
  bool m_wantWrite = false;
  friend class cServer;
  friend class cServiceClient;
};

}  // namespace kest

// One framed connection that owns its socket.
#pragma once

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "kest/frame.h"
#include "kest/types.h"

namespace kest {

// Traces of the transport (channels, servers, service clients).
constexpr char kTransportModule[] = "kest";
constexpr char kTransportError[] = "002";  // a peer or connection failed; the process goes on
constexpr char kTransportInfo[] = "004";   // listening, connected

class cChannel;

class IChannelHandler {
 public:
  virtual void OnFrame(cChannel* channel, cFrame& frame) = 0;
  // The frames of one read have all been handled and their answers are about
  // to leave together: a handler that defers work to batch it finishes it here.
  virtual void OnFramesDone(cChannel* channel) { (void)channel; }
  // After this the channel is closed; it is destroyed later by its owner.
  // Owners must not delete a channel from inside its callbacks: they post
  // the deletion to the loop instead.
  virtual void OnChannelClosed(cChannel* channel, std::string const& reason) = 0;

 protected:
  ~IChannelHandler() = default;
};

class cChannel {
 public:
  // A client that stops reading its answers may hold this much unsent data
  // before it is disconnected, so it cannot grow our memory without bound.
  static constexpr std::size_t kDefaultSendLimit = 1024 * 1024;

  // Takes the connected socket (made non-blocking, TCP_NODELAY for TCP) and
  // watches it in the process's loop.
  cChannel(int fd, s_socket_addr peer, std::string peerText, IChannelHandler* handler);
  ~cChannel();  // closes silently: the handler hears nothing
  cChannel(const cChannel&) = delete;
  cChannel& operator=(const cChannel&) = delete;

  // The peer as a serialisable value; ToString("") gives "a.b.c.d:port"
  // (for Unix sockets the peer's "uid=N pid=N").
  ISerialize const& PeerInfo() const { return m_peerInfo; }
  std::string const& PeerText() const { return m_peerText; }
  // The text PeerInfo gives for a connected socket, and its address (TCP).
  static std::string DescribePeer(int fd, s_socket_addr& addr);

  // Queues a frame; false when the channel is closed (or is closed now
  // because the send limit is exceeded) or the frame is larger than the
  // frame limit (traced; the channel stays open). Never calls the handler
  // except for that send-limit close.
  bool Send(cFrame const& frame);
  // As Send, but the frame waits for Flush (or for more to follow) unless a
  // lot is queued: a client pipelining requests writes them in one go.
  bool Queue(cFrame const& frame);
  void Flush() { FlushQueued(); }
  // Closes the socket once; the handler hears OnChannelClosed.
  void Close(std::string const& reason);
  // Close for a fault of the peer (bad frame, send limit): traced with the peer.
  void Abort(std::string const& reason);
  bool IsOpen() const { return m_fd >= 0; }
  // Unix sockets: the peer's uid and effective gid (SO_PEERCRED), for
  // services that serve some operations to some users only. False for TCP.
  bool PeerCred(unsigned& uid, unsigned& gid) const;
  // Whether the peer's effective gid or one of its supplementary groups
  // (SO_PEERGROUPS, as they were when it connected) is in gids.
  static bool PeerInGroups(int fd, unsigned gid, std::set<unsigned> const& gids);
  bool PeerInGroups(unsigned gid, std::set<unsigned> const& gids) const {
    return PeerInGroups(m_fd, gid, gids);
  }
  // Bytes of a frame that has begun to arrive and is not complete yet.
  std::size_t Unfinished() const { return m_reader.Buffered(); }
  int Fd() const { return m_fd; }
  void SetSendLimit(std::size_t bytes) { m_sendLimit = bytes; }
  std::size_t Pending() const { return m_out.size() - m_outPos; }

  // Blocking helpers for synchronous clients (never used by servers).
  bool FlushBlocking(int timeoutMs);
  void* userData = nullptr;

 private:
  void OnEvents(std::uint32_t events);
  void ReadSome();
  bool Dispatch();
  bool Append(cFrame const& frame, bool holdBack);
  int WriteSome();  // 0 or the errno of a failed write; never closes
  void UpdateInterest();

  int m_fd;
  class cPeerInfo : public ISerialize {
   public:
    KEST_GARBAGE_COLLECTABLE
    std::string text;
    s_socket_addr addr;
    std::string TypeName() const override { return "cPeerInfo"; }
    bool Serialize(cSerializeBuffer& b) const override { return addr.Serialize(b); }
    bool Deserialize(cSerializeBuffer& b) override { return addr.Deserialize(b); }
    std::string ToString(std::string const&) const override { return text; }
    using ISerialize::Deserialize;
    using ISerialize::Serialize;
  } m_peerInfo;
  std::string m_peerText;
  IChannelHandler* m_handler;
  cFrameReader m_reader;
  std::vector<std::uint8_t> m_out;
  std::size_t m_outPos = 0;
  std::size_t m_sendLimit = kDefaultSendLimit;
  bool m_wantWrite = false;
  // Set while the frames of one read are handled: answers sent meanwhile are
  // queued and leave together afterwards, one write for a whole pipeline.
  bool m_dispatching = false;
  void FlushQueued();
  friend class cServer;
  friend class cServiceClient;
};

}  // namespace kest

// A client of another service: connects without blocking the loop,
// reconnects with backoff, and makes synchronous requests with a timeout.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kest/access_point.h"
#include "kest/channel.h"
#include "kest/hello.h"
#include "kest/loop.h"

namespace kest {

class cService;
class cMessageSink;
class cServiceClientWatcher;

// Failure codes of a service client itself. Negative and far from -errno
// values, which peers use for their own failures.
namespace clienterr {
constexpr int kNotConnected = -1001;
constexpr int kTimeout = -1002;
constexpr int kProtocol = -1003;
constexpr int kConnectionLost = -1004;
char const* Name(int code);  // "not connected", ... ; nullptr for other codes
}  // namespace clienterr

class cServiceClient : private IChannelHandler {
 public:
  // Reconnect backoff: 100 ms doubling to 5 s. It starts again from 100 ms
  // only after a connection has lasted kStableMs: a peer that accepts and
  // closes at once (full, or not letting us in) must not be hammered.
  static constexpr unsigned kBackoffFirstMs = 100;
  static constexpr unsigned kBackoffMaxMs = 5000;
  static constexpr unsigned kStableMs = 5000;

  // wanted: the service expected at accessPoint; the connection counts as
  // up once that service has answered the hello.
  cServiceClient(cService* service, unsigned timeoutMs, std::string accessPoint,
                 cServiceId const& wanted);
  // Closes silently: no hook and no watcher hears of it.
  virtual ~cServiceClient();
  cServiceClient(const cServiceClient&) = delete;
  cServiceClient& operator=(const cServiceClient&) = delete;

  // False (traced) for a malformed access point; connecting goes on in the
  // loop, at once or, after a Stop, when the backoff in force allows.
  virtual bool Start();
  // Ends the connection (OnDisconnected follows from the loop) and the retries.
  virtual void Stop();
  bool IsConnected() const;
  std::string const& AccessPoint() const { return m_accessPoint; }
  cService* Service() const { return m_service; }

  // Sends a request and waits (polling only this connection) for its reply
  // at most the timeout. Returns 0 with the reply body, or a clienterr code.
  // Events that arrive meanwhile are kept and dispatched from the loop later.
  [[nodiscard]] int Request(std::uint16_t op, cSerializeBuffer const& body,
                            cSerializeBuffer& reply);
  bool SendEvent(std::uint16_t op, cSerializeBuffer const& body);

  // Pipelined requests, for callers that need no answer before they go on.
  // Post sends a request without waiting for its answer, which reaches
  // OnPostedReply later (from inside Post, Request or Collect, or from the
  // loop). At most kPostWindow requests go unanswered: beyond that Post
  // first waits for answers, so neither side's socket buffers fill up.
  // 0, or a clienterr code and the request was not sent.
  static constexpr std::size_t kPostWindow = 256;
  [[nodiscard]] int Post(std::uint16_t op, cSerializeBuffer const& body);
  // Waits until every posted request is answered: 0, or kTimeout or
  // kConnectionLost, and the connection is gone with the answers still due
  // (OnPostedLost counts them).
  [[nodiscard]] int Collect();

  void AddWatcher(cServiceClientWatcher* watcher);
  void RemoveWatcher(cServiceClientWatcher* watcher);

 protected:
  // All three run from the loop (posted), never from inside Request, in the
  // order the connection saw them.
  virtual void OnConnected() {}
  virtual void OnDisconnected() {}
  virtual void OnEvent(cFrame& frame) { (void)frame; }
  // The answer to a posted request; the frame's id is the one it was sent with.
  virtual void OnPostedReply(cFrame& frame) { (void)frame; }
  // Posted requests that will never be answered: their connection is gone.
  virtual void OnPostedLost(std::size_t count) { (void)count; }

 private:
  void OnFrame(cChannel* channel, cFrame& frame) override;
  void OnChannelClosed(cChannel* channel, std::string const& reason) override;
  void TryConnect();
  void OnConnectResult(std::uint32_t events);
  void Connected(int fd);
  void Greeted(cFrame& frame);
  void ConnectFailed(std::string const& reason);
  void AbandonConnect();
  void ScheduleReconnect();
  void DrainEvents();
  // Polls only this connection until done() or the deadline: 0, kTimeout or
  // kConnectionLost. Other frames that arrive are handled as usual.
  int Await(std::function<bool()> const& done, std::int64_t deadline);
  // Traces a failed wait of op. A timeout drops the connection: a peer that
  // leaves a request unanswered that long is taken for stuck, and a new
  // connection (reported to the hooks and watchers) is the way back. A late
  // answer is harmless, answers being matched by id.
  void WaitFailed(char const* what, std::uint16_t op, int rc);
  bool Sendable(std::uint16_t op, cSerializeBuffer const& body);
  cFrame RequestFrame(std::uint16_t op, cSerializeBuffer const& body);
  void RunLater(std::function<void()> fn);  // dropped if this client is gone by then

  cService* m_service;
  unsigned m_timeoutMs;
  std::string m_accessPoint;
  cAccessPoint m_ap;
  bool m_started = false;
  int m_connectingFd = -1;
  std::unique_ptr<cChannel> m_channel;
  cServiceId m_wanted;
  unsigned m_backoffMs = kBackoffFirstMs;
  std::int64_t m_nextTryMs = 0;  // no connection attempt before this
  std::int64_t m_greetedMs = 0;  // when the current connection was accepted
  bool m_greeted = false;        // the current connection's hello was accepted
  std::uint32_t m_helloId = 0;
  std::string m_closeReason;  // what the server said before it closed
  cEventLoop::TimerId m_retryTimer = 0;
  cEventLoop::TimerId m_helloTimer = 0;
  std::uint32_t m_nextId = 1;
  std::vector<cServiceClientWatcher*> m_watchers;
  // The request being waited for inside Request.
  bool m_inRequest = false;
  std::uint32_t m_waitId = 0;
  bool m_gotReply = false;
  cSerializeBuffer* m_reply = nullptr;
  std::deque<std::uint32_t> m_posted;  // ids of posted requests not yet answered
  std::uint16_t m_lastPostedOp = 0;    // names a batch in traces
  std::deque<cFrame> m_events;
  bool m_drainPosted = false;
  std::shared_ptr<bool> m_life = std::make_shared<bool>(true);
};

// Posts its message once every added client is reported connected, and again
// after a client that was lost has been reported connected once more.
class cServiceClientWatcher {
 public:
  cServiceClientWatcher(cMessageSink* sink, std::string message);
  ~cServiceClientWatcher();
  bool Add(cServiceClient* client);
  bool OnConnect(cServiceClient* client);
  void OnDisconnect(cServiceClient* client);  // called by the client itself
  void Remove(cServiceClient* client);        // forgets it; called by a dying client

 private:
  cMessageSink* m_sink;
  std::string m_message;
  struct Watched {
    cServiceClient* client;
    bool up;
  };
  std::vector<Watched> m_clients;
};

}  // namespace kest

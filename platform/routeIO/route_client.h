// Client side of the route service for other processes, tools and tests.
// Blocking, with a timeout, and independent of any event loop: it owns a
// plain socket and may run on any thread (one client per thread).
//
// Custom routes set through a client live as long as its connection: Close
// (or the end of the process) makes the service delete them.
#pragma once

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "kest/frame.h"
#include "kest/types.h"
#include "routeIO/route_errors.h"
#include "routeIO/route_protocol.h"
#include "routeIO/route_server.h"

namespace routeIO {

class cRouteClient {
 public:
  // Requests queued but not yet written are flushed once they exceed this,
  // so a long pipeline goes out in pieces while answers are being read.
  static constexpr std::size_t kFlushThreshold = 16 * 1024;

  cRouteClient() = default;
  ~cRouteClient();
  cRouteClient(const cRouteClient&) = delete;
  cRouteClient& operator=(const cRouteClient&) = delete;

  // accessPoint: "a.b.c.d:port" or "unix:/path". timeoutMs bounds the
  // connect with its hello and, afterwards, every wait for an answer. False
  // with a reason in error (also kept as LastError()), the server's own
  // when it refused the connection ("... is the HAL proxy, not the route
  // manager").
  bool Connect(std::string const& accessPoint, int timeoutMs, std::string& error);
  bool IsConnected() const { return m_fd >= 0; }
  int Fd() const { return m_fd; }  // to watch the connection; -1 when closed
  // Closes the connection; answers still outstanding are dropped.
  void Close();

  // One request, one answer. On a client-side failure the result is
  // (false, routeerr::k...) and LastError() says what happened.
  routeResult SetGateway(kest::s_socket_addr const& address, std::string const& tag,
                         std::string const& ifname, std::uint32_t type, std::uint32_t priority);
  routeResult DelGateway(std::string const& tag);
  routeResult SetRoute(kest::s_socket_addr const& network, kest::s_socket_addr const& netmask,
                       kest::s_socket_addr const& gateway, kest::s_socket_addr const& source,
                       std::string const& ifname, std::string const& tag, std::uint32_t priority);
  routeResult DelRoute(std::string const& tag);
  routeResult Call(routeCommand const& cmd);

  // Pipelining: Post queues a request without waiting for its answer;
  // Collect returns the answers one by one in the order of the Posts.
  // Post's result is 0 when queued, else a routeerr code (nothing queued);
  // failures while a long queue is written come back from Collect. The
  // single calls above answer routeerr::kBusy while posted answers wait.
  std::int32_t Post(routeCommand const& cmd);
  // Writes what Post queued without waiting for answers, for a caller that
  // watches Fd() in a poll loop of its own and collects once it is readable.
  // 0, or a routeerr code.
  std::int32_t Flush();
  routeResult Collect();
  std::size_t Outstanding() const { return m_pending.size(); }

  std::string const& LastError() const { return m_lastError; }

 private:
  struct cAnswer {
    std::uint32_t id;
    routeResult result;
  };

  routeResult Fail(std::int32_t code, std::string const& why);
  // Closes the socket after a failure but keeps what is owed to the caller:
  // answers already read, and one kConnectionLost per request still waiting.
  void Drop(std::string const& why);
  // Writes queued bytes and reads arriving answers until the queue is empty
  // (wantAnswer false) or an answer is buffered (wantAnswer true). Returns 0
  // or a routeerr code; on kConnectionLost/kProtocol the connection is closed.
  enum class eWant { kWritten, kAnswer, kGreeting };
  std::int32_t Pump(eWant want);
  std::int32_t ReadAnswers();

  int m_fd = -1;
  std::string m_accessPoint;
  std::uint32_t m_helloId = 0;
  bool m_greeted = false;
  int m_timeoutMs = 0;
  std::uint32_t m_nextId = 1;
  std::vector<std::uint8_t> m_out;
  std::size_t m_outPos = 0;
  kest::cFrameReader m_reader;
  std::deque<std::uint32_t> m_pending;  // ids posted, answer not yet collected
  std::deque<cAnswer> m_answers;        // answers read, not yet collected
  std::set<std::uint32_t> m_abandoned;  // ids whose Collect timed out
  std::string m_lastError;
};

}  // namespace routeIO

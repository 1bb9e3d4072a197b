// The proxy's service: decodes HAL requests, turns them into backend calls in
// domain terms and answers. Bad input gets an error code and a log line.
#pragma once

#include <string>
#include <vector>

#include "backend.h"
#include "fault_backend.h"
#include "hal/hal_protocol.h"
#include "keeper.h"
#include "kest/loop.h"
#include "kest/server.h"
#include "result_log.h"

namespace halproxy {

// What a route request with an unavailable gateway does.
enum class eUnavailable {
  kSkip,        // nothing is installed, and its removal has nothing to remove
  kUnreachable  // an unreachable route for the prefix stands in for it
};

class cHalProxy : public kest::IServerHandler {
 public:
  // faults: the wrapper around backend that InjectFault drives (only with
  // --enable-test-ops); nullptr refuses InjectFault.
  cHalProxy(IRouteBackend& backend, eUnavailable unavailable,
            unsigned keepRefreshes = cRouteKeeper::kDefaultKeepRefreshes,
            cFaultBackend* faults = nullptr);
  ~cHalProxy();
  cHalProxy(const cHalProxy&) = delete;
  cHalProxy& operator=(const cHalProxy&) = delete;

  // Routes of ours already in the table at start: adopted, so they are
  // swept unless the route manager asks for them again.
  std::size_t Adopt() { return m_keeper.CountOurs(); }

  // Answers come back through server; set before the first frame arrives.
  void Attach(kest::cServer* server) { m_server = server; }

  // Runs one decoded request of connection: 0 or a negative errno; lines is
  // filled for ListRoutes, detail says why a request failed when there is
  // more to say.
  int Execute(hal::cHalRequest const& req, std::vector<std::string>& lines, std::string& detail,
              void const* connection = nullptr);

  void OnOpen(kest::cChannel* channel) override;
  void OnFrame(kest::cChannel* channel, kest::cFrame& frame) override;
  void OnFramesDone(kest::cChannel* channel) override;
  void OnClose(kest::cChannel* channel) override;

 private:
  // A route installation or removal of the current read, waiting to go to
  // the backend with the others of that read.
  struct cPending {
    std::uint32_t id;
    hal::cHalRequest req;
  };

  // 1 with the route a route request stands for, 0 when there is nothing to
  // do (detail says why), or a negative errno.
  int RouteOf(hal::cHalRequest const& req, cRoute& route, std::string& detail);
  int RouteRequest(hal::cHalRequest const& req, std::string& detail, void const* connection);
  void FlushPending(kest::cChannel* channel);
  void Answer(kest::cChannel* channel, std::uint32_t id, std::uint16_t op, int rc,
              std::vector<std::string> const& lines);
  int DefaultRequest(hal::cHalRequest const& req, std::string& detail, void const* connection);
  int FaultRequest(hal::cHalRequest const& req, std::string& detail);
  void Log(hal::cHalRequest const& req, int rc, std::string const& detail);
  // Restoration after the kernel's notifications: coalesced into one pass,
  // at most one per kRestoreGapMs, however fast a link flaps.
  void ScheduleRestore();

  cRouteKeeper m_keeper;
  cFaultBackend* m_faults;
  eUnavailable m_unavailable;
  cResultLog m_log;
  kest::cEventLoop::TimerId m_restoreTimer = 0;
  std::uint64_t m_lastRestoreMs = 0;
  bool m_restored = false;  // m_lastRestoreMs is set
  kest::cServer* m_server = nullptr;
  std::vector<cPending> m_pending;
  std::vector<cRoute> m_pendingRoutes;  // m_pending's routes, as the backend takes them
  std::vector<cResult> m_results;       // reused by every batch
};

}  // namespace halproxy

// The proxy's service: decodes HAL requests, turns them into backend calls in
// domain terms and answers. Bad input gets an error code and a log line.
#pragma once

#include <string>
#include <vector>

#include "backend.h"
#include "hal/hal_protocol.h"
#include "kest/server.h"

namespace halproxy {

// What a route request with an unavailable gateway does.
enum class eUnavailable {
  kSkip,        // nothing is installed, and its removal has nothing to remove
  kUnreachable  // an unreachable route for the prefix stands in for it
};

class cHalProxy : public kest::IServerHandler {
 public:
  cHalProxy(IRouteBackend& backend, eUnavailable unavailable);

  // Answers come back through server; set before the first frame arrives.
  void Attach(kest::cServer* server) { m_server = server; }

  // Runs one decoded request: 0 or a negative errno; lines is filled for
  // ListRoutes, detail says why a request failed when there is more to say.
  int Execute(hal::cHalRequest const& req, std::vector<std::string>& lines, std::string& detail);

  void OnOpen(kest::cChannel* channel) override;
  void OnFrame(kest::cChannel* channel, kest::cFrame& frame) override;
  void OnClose(kest::cChannel* channel) override;

 private:
  int RouteRequest(hal::cHalRequest const& req, std::string& detail);
  int DefaultRequest(hal::cHalRequest const& req, std::string& detail);
  int FaultRequest(hal::cHalRequest const& req, std::string& detail);

  IRouteBackend& m_backend;
  eUnavailable m_unavailable;
  kest::cServer* m_server = nullptr;
};

}  // namespace halproxy

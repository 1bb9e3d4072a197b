// halproxy: the HAL proxy. Accepts the route manager's HAL requests and
// installs routes in the kernel (or, by default, in a table in memory).
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>

#include "hal/hal_protocol.h"
#include "kest/loop.h"
#include "kest/server.h"
#include "kest/service.h"
#include "log.h"
#include "memory_backend.h"
#include "netlink_backend.h"
#include "options.h"
#include "proxy.h"

namespace {

char const* const kUnavailableNames[] = {"skip", "unreachable"};

}  // namespace

int main(int argc, char** argv) {
  using namespace halproxy;
  cOptions opt;
  std::string error;
  if (int const status = ParseOptions(argc, argv, opt); status >= 0) return status;
  if (opt.syslog) kest::cTracepoint::SelectSink("syslog", "halproxy");
  kest::cTracepoint::SetMaxLevel(MaxLevelFor(opt.logLevel));
  // A peer that hangs up must cost an error value, not the process.
  std::signal(SIGPIPE, SIG_IGN);
  // From here on SIGTERM and SIGINT end the loop (once it runs) instead of
  // the process, also when they come before the loop has started.
  kest::Loop().InstallStopSignals();

  std::unique_ptr<IRouteBackend> backend;
  char const* backendName = "memory";
  if (opt.backend == cOptions::eBackend::kNetlink) {
    auto nl = std::make_unique<cNetlinkBackend>();
    if (!nl->Open(error)) {
      HALPROXY_LOG(kLevelError, "cannot use the kernel's routing table: %s", error.c_str());
      return 1;
    }
    backend = std::move(nl);
    backendName = "netlink";
  } else {
    backend = std::make_unique<cMemoryBackend>(opt.interfaces);
  }

  kest::cService service;
  // Test operations reach the backend only through this wrapper.
  std::unique_ptr<cFaultBackend> faults;
  if (opt.enableTestOps) faults = std::make_unique<cFaultBackend>(*backend);
  cHalProxy proxy(faults ? *faults : *backend, opt.unavailable,
                  static_cast<unsigned>(opt.sweepAfter), faults.get());
  if (std::size_t adopted = proxy.Adopt()) {
    HALPROXY_LOG(kLevelInfo,
                 "%zu routes of ours already in the table: kept while the route manager asks "
                 "for them",
                 adopted);
  }
  kest::cServer server(&service, &proxy, kModule, hal::kService);
  server.SetLimits(opt.limits);
  if (!server.Listen(opt.listen, error)) {
    HALPROXY_LOG(kLevelError, "cannot listen on %s: %s", opt.listen.c_str(), error.c_str());
    return 1;
  }
  proxy.Attach(&server);
  std::string where = opt.listen;
  // Port 0 lets the system choose: say which port it chose.
  if (where.size() > 2 && where.compare(where.size() - 2, 2, ":0") == 0) {
    where += " (port " + std::to_string(server.BoundPort()) + ")";
  }
  HALPROXY_LOG(kLevelInfo, "listening on %s, backend %s, unavailable gateways: %s", where.c_str(),
               backendName, kUnavailableNames[opt.unavailable == eUnavailable::kSkip ? 0 : 1]);
  if (opt.enableTestOps) HALPROXY_LOG(kLevelWarning, "test operations are on (--enable-test-ops)");

  service.ProcessMessages();  // until SIGTERM or SIGINT

  server.Close();
  HALPROXY_LOG(kLevelInfo, "stopped");
  return 0;
}

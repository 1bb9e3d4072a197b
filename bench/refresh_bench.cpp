// rmbench-refresh: the route manager's refresh timed from inside. The real
// service object runs against a real HAL proxy and data manager; once all
// its connections are up and the configured routes applied, it is given N
// custom routes (through SetRoute, as the route server would call it) and
// then runs OnRefresh R times, each timed in wall-clock and CPU time.
//
// Takes the framework's options; besides the route manager's own properties:
//   bench.routes=N        custom routes (default 10000)
//   bench.repeats=R       refreshes (default 5)
//   bench.halproxyPid=P   also report the proxy's CPU time per refresh
//   bench.between=CMD     shell command run between refreshes (the reference)
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "core/route_mgr_service.h"
#include "kest/loop.h"
#include "kest/message.h"
#include "kest/properties.h"
#include "route_set.h"

namespace {

using Clock = std::chrono::steady_clock;

// Nanoseconds the process has spent on a CPU (first field of schedstat).
long long ProcessCpuNs(std::string const& pid) {
  if (pid.empty()) return 0;
  std::ifstream in("/proc/" + pid + "/schedstat");
  long long ns = 0;
  in >> ns;
  return ns;
}

long long ThreadCpuNs() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

class cBench {
 public:
  explicit cBench(cRouteMgrService& svc) : m_svc(svc) {}

  void Poll() {
    if (m_svc.ConfigReceived() && m_svc.HalClient().IsConnected() && m_svc.RouteServer().IsReady()) {
      Measure();
      kest::Loop().Quit();
      return;
    }
    if (++m_polls > 3000) {
      std::fprintf(stderr, "rmbench-refresh: the service did not come up within 30 s\n");
      m_failed = true;
      kest::Loop().Quit();
      return;
    }
    kest::Loop().AddTimer(10, [this] { Poll(); });
  }
  bool Failed() const { return m_failed; }

 private:
  void Measure() {
    auto& props = kest::kestProperties();
    long n = std::strtol(props.GetStringForKey("bench.routes", "10000").c_str(), nullptr, 10);
    long repeats = std::strtol(props.GetStringForKey("bench.repeats", "5").c_str(), nullptr, 10);
    std::string proxyPid = props.GetStringForKey("bench.halproxyPid", "");
    std::string between = props.GetStringForKey("bench.between", "");

    // Only an identity for the per-client table: the service never looks
    // inside the channel of a command.
    static char clientIdentity;
    auto* client = reinterpret_cast<kest::cChannel*>(&clientIdentity);
    kest::s_socket_addr const mask(bench::kCustomMask, 0), gw(bench::kGateway, 0),
        src("0.0.0.0", 0);
    std::string const ifname = bench::kInterface;
    long failed = 0;
    auto t0 = Clock::now();
    for (long i = 0; i < n; ++i) {
      kest::s_socket_addr net(bench::CustomNetwork(static_cast<std::uint32_t>(i)), 0);
      if (!m_svc.SetRoute(client, net, mask, gw, src, ifname, "b" + std::to_string(i), 0).success)
        ++failed;
    }
    std::printf("routes=%ld\nset_failed=%ld\nset_ms=%.1f\n", n, failed, Ms(Clock::now() - t0));

    for (long r = 0; r < repeats; ++r) {
      if (!between.empty()) {
        auto b0 = Clock::now();
        int rc = std::system(between.c_str());
        std::printf("reference_ms=%.2f\n", Ms(Clock::now() - b0));
        if (rc != 0) std::fprintf(stderr, "rmbench-refresh: '%s' failed (%d)\n", between.c_str(), rc);
      }
      long long proxy0 = ProcessCpuNs(proxyPid), cpu0 = ThreadCpuNs();
      auto w0 = Clock::now();
      // The timer's message, handled as the loop would hand it over.
      kest::cMsg msg("TIMER::ON-REFRESH");
      m_svc.ProcessMsg(msg);
      double wall = Ms(Clock::now() - w0);
      double cpu = static_cast<double>(ThreadCpuNs() - cpu0) / 1e6;
      double proxy = static_cast<double>(ProcessCpuNs(proxyPid) - proxy0) / 1e6;
      std::printf("refresh_ms=%.2f\nrefresh_cpu_ms=%.2f\nhalproxy_cpu_ms=%.2f\n", wall, cpu, proxy);
    }
    std::fflush(stdout);
  }

  cRouteMgrService& m_svc;
  int m_polls = 0;
  bool m_failed = false;
};

}  // namespace

int main(int argc, char** argv) {
  kest::kestInit(argc, argv, "");
  auto& props = kest::kestProperties();
  // The benchmark's own route server must not take the daemon's address.
  if (!props.Has(routeIO::cRouteServer::kSapProperty))
    props.Set(routeIO::cRouteServer::kSapProperty, "127.0.0.1:0");
  std::string data = props.GetStringForKey("system.customDataMgrSap", "127.0.0.1:3711");
  std::string hal = props.GetStringForKey("system.customHalProxSap", "127.0.0.1:3710");
  bool failed = false;
  {
    cRouteMgrService svc(data, hal);
    svc.Init("routeMgr", 3704);
    cBench bench(svc);
    kest::Loop().AddTimer(10, [&] { bench.Poll(); });
    svc.Run();
    failed = bench.Failed();
    kest::kestDeinit(true);
  }
  return failed ? 1 : 0;
}

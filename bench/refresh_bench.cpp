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
//   bench.probed=K        then K more refreshes from the loop, 100 ms apart,
//                         while a route client on another thread keeps
//                         sending a cheap command: how long its commands
//                         wait behind a refresh (default 3; 0: none)
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/route_mgr_service.h"
#include "kest/loop.h"
#include "kest/message.h"
#include "kest/properties.h"
#include "routeIO/route_client.h"
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
    if (m_svc.ConfigReceived() && m_svc.HalClient().IsConnected() &&
        m_svc.RouteServer().IsReady()) {
      Measure();
      if (!StartProbe()) kest::Loop().Quit();
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
    // Refreshes run only when this benchmark says: the service's own 5 s
    // timer would add untimed ones in between.
    m_svc.RefreshTimer().Stop();
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
        if (rc != 0)
          std::fprintf(stderr, "rmbench-refresh: '%s' failed (%d)\n", between.c_str(), rc);
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

  struct cSpan {
    Clock::time_point begin, end;
  };

  // A client on its own thread asks, again and again, something that costs
  // no HAL request (DelRoute of a tag nobody set) and notes when it asked
  // and when the answer came.
  bool StartProbe() {
    m_probed = std::strtol(kest::kestProperties().GetStringForKey("bench.probed", "3").c_str(),
                           nullptr, 10);
    if (m_probed <= 0) return false;
    std::string sap = "127.0.0.1:" + std::to_string(m_svc.RouteServer().BoundPort());
    m_probe = std::thread([this, sap] {
      routeIO::cRouteClient client;
      std::string error;
      if (!client.Connect(sap, 60000, error)) {
        std::fprintf(stderr, "rmbench-refresh: probe: %s\n", error.c_str());
        m_probeFailed = true;
      }
      while (!m_probeFailed && !m_stopProbe) {
        auto t0 = Clock::now();
        client.DelRoute("probe-never-set");
        m_samples.push_back(cSpan{t0, Clock::now()});
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      m_probeDone = true;
    });
    kest::Loop().AddTimer(kProbeGapMs, [this] { ProbedRefresh(); });
    return true;
  }

  // As the refresh timer does it: the message handled in the loop, between
  // whatever else the loop has to do.
  void ProbedRefresh() {
    cSpan span;
    span.begin = Clock::now();
    kest::cMsg msg("TIMER::ON-REFRESH");
    m_svc.ProcessMsg(msg);
    span.end = Clock::now();
    m_refreshes.push_back(span);
    if (static_cast<long>(m_refreshes.size()) < m_probed) {
      kest::Loop().AddTimer(kProbeGapMs, [this] { ProbedRefresh(); });
      return;
    }
    m_stopProbe = true;
    WaitProbe();
  }

  // The probe may be waiting for an answer of this very loop: keep it turning.
  void WaitProbe() {
    if (!m_probeDone) {
      kest::Loop().AddTimer(1, [this] { WaitProbe(); });
      return;
    }
    m_probe.join();
    // The longest wait of a command sent while a refresh ran, and that
    // refresh's length: a command should wait at most the rest of it.
    double maxWait = 0, itsRefresh = 0, maxRatio = 0, maxOther = 0;
    long behindTwo = 0;  // commands that waited across more than one refresh
    for (auto const& s : m_samples) {
      double wait = Ms(s.end - s.begin);
      int behind = 0;
      for (auto const& r : m_refreshes) {
        if (s.begin < r.end && s.end > r.begin) {
          ++behind;
          double len = Ms(r.end - r.begin);
          if (wait > maxWait) maxWait = wait, itsRefresh = len;
          maxRatio = std::max(maxRatio, wait / len);
        }
      }
      if (behind == 0) maxOther = std::max(maxOther, wait);
      if (behind > 1) ++behindTwo;
    }
    std::printf(
        "probe_samples=%zu\nprobe_refreshes=%zu\nwait_max_ms=%.2f\nwait_refresh_ms=%.2f\n"
        "wait_ratio=%.4f\nwait_outside_refresh_max_ms=%.2f\nwait_behind_two=%ld\n",
        m_samples.size(), m_refreshes.size(), maxWait, itsRefresh, maxRatio, maxOther, behindTwo);
    std::fflush(stdout);
    if (m_probeFailed) m_failed = true;
    kest::Loop().Quit();
  }

  static constexpr std::uint64_t kProbeGapMs = 100;

  cRouteMgrService& m_svc;
  int m_polls = 0;
  bool m_failed = false;
  long m_probed = 0;
  std::thread m_probe;
  std::atomic<bool> m_stopProbe{false}, m_probeDone{false}, m_probeFailed{false};
  std::vector<cSpan> m_samples;  // written by the probe thread, read after join
  std::vector<cSpan> m_refreshes;
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

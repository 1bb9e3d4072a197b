// rmbench: the route-client side of the benchmarks, and the generator of the
// route sets that bench/run.sh hands to the route manager, the data manager
// and `ip -batch`. Every measurement prints key=value lines on stdout.
//
//   rmbench set -s SAP -n N [--out FILE --hold-until FILE]
//   rmbench latency -s SAP -c CLIENTS -n PER_CLIENT [--poll 1]
//   rmbench probe -s SAP -t SECONDS [--until FILE]
//   rmbench start -s SAP -- PROGRAM ARGS...
//   rmbench wait -s SAP [--timeout-ms MS]
//   rmbench settle -s SAP
//   rmbench ipbatch -n N [--first I] --op add|replace [--proto P] [--configured M]
//   rmbench config -m M [--wired W]
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "kest/access_point.h"
#include "kest/frame.h"
#include "kest/hello.h"
#include "routeIO/route_client.h"
#include "routeIO/route_protocol.h"
#include "route_set.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTimeoutMs = 60000;  // a refresh of 100,000 routes must not look like a dead daemon

double Us(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

struct cArgs {
  std::map<std::string, std::string> opt;
  std::vector<std::string> rest;  // after "--"

  std::string Get(std::string const& k, std::string const& def = "") const {
    auto it = opt.find(k);
    return it == opt.end() ? def : it->second;
  }
  long Num(std::string const& k, long def) const {
    auto it = opt.find(k);
    return it == opt.end() ? def : std::strtol(it->second.c_str(), nullptr, 10);
  }
};

bool ParseArgs(int argc, char** argv, int first, cArgs& out) {
  for (int i = first; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--") {
      for (++i; i < argc; ++i) out.rest.push_back(argv[i]);
      break;
    }
    if (a.size() < 2 || a[0] != '-' || i + 1 >= argc) {
      std::fprintf(stderr, "rmbench: bad argument '%s'\n", a.c_str());
      return false;
    }
    out.opt[a] = argv[++i];
  }
  return true;
}

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  std::size_t idx = static_cast<std::size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
  return v[std::min(idx, v.size() - 1)];
}

routeIO::cSetRouteCmd CustomRoute(std::uint32_t i, std::string const& tagPrefix) {
  routeIO::cSetRouteCmd c;
  c.network = kest::s_socket_addr(bench::CustomNetwork(i), 0);
  c.netmask = kest::s_socket_addr(bench::kCustomMask, 0);
  c.gateway = kest::s_socket_addr(bench::kGateway, 0);
  c.source = kest::s_socket_addr("0.0.0.0", 0);
  c.ifname = bench::kInterface;
  c.tag = tagPrefix + std::to_string(i);
  c.priority = 0;
  return c;
}

bool Connect(routeIO::cRouteClient& client, std::string const& sap) {
  std::string error;
  if (client.Connect(sap, kTimeoutMs, error)) return true;
  std::fprintf(stderr, "rmbench: %s\n", error.c_str());
  return false;
}

// Whether a server on SAP answers a hello, whichever service it is: the
// route manager accepts it, the HAL proxy and the data manager refuse it
// saying who they are, and either way their loop is up and serving.
bool Greets(std::string const& sap, std::string& error) {
  kest::cAccessPoint ap;
  if (!kest::cAccessPoint::Parse(sap, ap, error)) return false;
  sockaddr_storage addr{};
  socklen_t len = ap.ToSockaddr(addr);
  int fd = socket(ap.kind == kest::cAccessPoint::kUnix ? AF_UNIX : AF_INET,
                  SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  timeval tv{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  std::vector<std::uint8_t> out;
  kest::EncodeFrame(kest::HelloFrame(1, routeIO::kService), out);
  bool greeted = false;
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    error = sap + ": " + std::strerror(errno);
  } else if (send(fd, out.data(), out.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(out.size())) {
    error = sap + ": cannot send the hello";
  } else {
    kest::cFrameReader reader;
    kest::cFrame in;
    std::uint8_t buf[1024];
    for (;;) {
      auto r = reader.Next(in, error);
      if (r == kest::cFrameReader::kFrame) greeted = in.op == kest::kHelloOp;
      if (r != kest::cFrameReader::kNeedMore) break;
      ssize_t n = recv(fd, buf, sizeof buf, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        error = sap + ": no greeting";
        break;
      }
      reader.Feed(buf, static_cast<std::size_t>(n));
    }
  }
  close(fd);
  return greeted;
}

void WriteResult(std::string const& path, std::string const& text) {
  if (path.empty()) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
    return;
  }
  // Renamed into place, so a reader polling for the file never sees half of it.
  std::string tmp = path + ".tmp";
  std::ofstream(tmp) << text;
  std::rename(tmp.c_str(), path.c_str());
}

// N custom routes through one client, pipelined: all posted, then every
// answer collected. The connection can stay open (--hold-until) so that the
// routes stay while the caller looks at the daemon.
int CmdSet(cArgs const& a) {
  routeIO::cRouteClient client;
  if (!Connect(client, a.Get("-s"))) return 1;
  long n = a.Num("-n", 1000);
  long first = a.Num("--first", 0);
  std::vector<routeIO::routeCommand> cmds;
  cmds.reserve(static_cast<std::size_t>(n));
  for (long i = 0; i < n; ++i)
    cmds.emplace_back(CustomRoute(static_cast<std::uint32_t>(first + i), "b"));
  long failed = 0;
  std::int32_t firstError = 0;
  auto t0 = Clock::now();
  for (auto const& c : cmds) {
    if (std::int32_t rc = client.Post(c)) {
      ++failed;
      if (!firstError) firstError = rc;
    }
  }
  while (client.Outstanding() > 0) {
    routeIO::routeResult r = client.Collect();
    if (!r.success) {
      ++failed;
      if (!firstError) firstError = r.rc;
    }
  }
  double us = Us(Clock::now() - t0);
  std::string out = "elapsed_us=" + std::to_string(static_cast<long>(us)) +
                    "\nroutes=" + std::to_string(n) + "\nfailed=" + std::to_string(failed) +
                    "\nfirst_error=" + std::to_string(firstError) + "\n";
  WriteResult(a.Get("--out"), out);
  std::string hold = a.Get("--hold-until");
  while (!hold.empty() && access(hold.c_str(), F_OK) != 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return failed == 0 ? 0 : 1;
}

// Round trips of single SetRoute calls from C clients at once, each on its
// own connection with one call outstanding; every call installs a new route,
// so each costs exactly one HAL request. By default each client is a thread
// of its own, as separate processes would be; with --poll 1 one thread
// drives every connection from a poll loop, so that on a machine with fewer
// cores than clients the figures are the service's and not the wake-ups of
// C client threads queued for a core.
int CmdLatency(cArgs const& a) {
  std::size_t const clients = static_cast<std::size_t>(a.Num("-c", 1));
  std::size_t const perClient = static_cast<std::size_t>(a.Num("-n", 1000));
  std::size_t const warmup = static_cast<std::size_t>(a.Num("--warmup", 50));
  std::size_t const calls = warmup + perClient;
  auto command = [&](std::size_t c, std::size_t i) {
    return CustomRoute(static_cast<std::uint32_t>(c * calls + i), "l" + std::to_string(c) + "-");
  };
  std::vector<std::vector<double>> samples(clients);
  std::atomic<long> failures{0};
  if (a.Num("--poll", 0) != 0) {
    std::vector<routeIO::cRouteClient> conns(clients);
    std::vector<pollfd> fds(clients);
    std::vector<std::size_t> done(clients, 0);
    std::vector<Clock::time_point> sent(clients);
    auto post = [&](std::size_t c) {
      // Made before the clock starts, as the threads make theirs.
      routeIO::cSetRouteCmd const cmd = command(c, done[c]);
      sent[c] = Clock::now();
      if (conns[c].Post(cmd) != 0 || conns[c].Flush() != 0) ++failures;
    };
    for (std::size_t c = 0; c < clients; ++c) {
      if (!Connect(conns[c], a.Get("-s"))) return 1;
      fds[c] = {conns[c].Fd(), POLLIN, 0};
    }
    for (std::size_t c = 0; c < clients; ++c) post(c);
    for (std::size_t left = clients; left > 0 && failures == 0;) {
      if (poll(fds.data(), fds.size(), kTimeoutMs) <= 0) {
        std::fprintf(stderr, "rmbench: no answer within %d ms\n", kTimeoutMs);
        return 1;
      }
      for (std::size_t c = 0; c < clients; ++c) {
        if (fds[c].revents == 0) continue;
        routeIO::routeResult const r = conns[c].Collect();
        double const us = Us(Clock::now() - sent[c]);
        if (!r.success) ++failures;
        if (done[c]++ >= warmup) samples[c].push_back(us);
        if (done[c] < calls) {
          post(c);
        } else {
          fds[c].fd = -1;  // poll skips it from now on
          --left;
        }
      }
    }
  } else {
    std::atomic<std::size_t> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (std::size_t c = 0; c < clients; ++c) {
      threads.emplace_back([&, c] {
        routeIO::cRouteClient client;
        bool ok = Connect(client, a.Get("-s"));
        std::vector<routeIO::cSetRouteCmd> cmds;
        for (std::size_t i = 0; i < calls; ++i) cmds.push_back(command(c, i));
        ++ready;
        while (!go) std::this_thread::yield();
        if (!ok) {
          ++failures;
          return;
        }
        samples[c].reserve(perClient);
        for (std::size_t i = 0; i < calls; ++i) {
          auto t0 = Clock::now();
          routeIO::routeResult r = client.Call(cmds[i]);
          double us = Us(Clock::now() - t0);
          if (!r.success) ++failures;
          if (i >= warmup) samples[c].push_back(us);
        }
      });
    }
    while (ready < clients) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    go = true;
    for (auto& t : threads) t.join();
  }
  std::vector<double> all;
  for (auto const& s : samples) all.insert(all.end(), s.begin(), s.end());
  std::printf("clients=%zu\nsamples=%zu\nfailed=%ld\np50_us=%.1f\np99_us=%.1f\nmax_us=%.1f\n",
              clients, all.size(), failures.load(), Percentile(all, 0.5), Percentile(all, 0.99),
              all.empty() ? 0.0 : *std::max_element(all.begin(), all.end()));
  return failures == 0 ? 0 : 1;
}

// A client that keeps asking something cheap (DelRoute of a tag nobody set:
// no HAL request) and records how long each answer takes; the longest wait
// is the time its command spent queued behind whatever the daemon was busy
// with (a refresh, another client's big operation). It stops after -t
// seconds, or once the file --until names exists.
int CmdProbe(cArgs const& a) {
  routeIO::cRouteClient client;
  if (!Connect(client, a.Get("-s"))) return 1;
  double seconds = std::strtod(a.Get("-t", "6").c_str(), nullptr);
  long gapUs = a.Num("--gap-us", 500);
  // Waits longer than this count as stalls (a refresh, or the machine).
  double stallUs = static_cast<double>(a.Num("--stall-us", 5000));
  std::vector<double> rtts;
  std::vector<double> stalls;
  auto end = Clock::now() +
             std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  long bad = 0;
  std::string until = a.Get("--until");
  while (Clock::now() < end && (until.empty() || access(until.c_str(), F_OK) != 0)) {
    auto t0 = Clock::now();
    routeIO::routeResult r = client.DelRoute("probe-never-set");
    double us = Us(Clock::now() - t0);
    if (r.rc != -100) ++bad;  // the daemon's answer to an unknown tag
    rtts.push_back(us);
    if (us > stallUs) stalls.push_back(us);
    std::this_thread::sleep_for(std::chrono::microseconds(gapUs));
  }
  std::printf("samples=%zu\nbad=%ld\np50_us=%.1f\nmax_us=%.1f\nstalls=%zu\n", rtts.size(), bad,
              Percentile(rtts, 0.5),
              rtts.empty() ? 0.0 : *std::max_element(rtts.begin(), rtts.end()), stalls.size());
  for (double s : stalls) std::printf("stall_us=%.0f\n", s);
  return bad == 0 ? 0 : 1;
}

// Time from fork to the first greeting on SAP; the program is
// ended (SIGTERM) afterwards.
int CmdStart(cArgs const& a) {
  if (a.rest.empty()) {
    std::fprintf(stderr, "rmbench start: no program\n");
    return 2;
  }
  std::string sap = a.Get("-s");
  long timeoutMs = a.Num("--timeout-ms", 10000);
  std::vector<char*> argv;
  for (auto const& s : a.rest) argv.push_back(const_cast<char*>(s.c_str()));
  argv.push_back(nullptr);
  auto t0 = Clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    execvp(argv[0], argv.data());
    _exit(127);
  }
  double us = -1;
  for (;;) {
    std::string error;
    if (Greets(sap, error)) {
      us = Us(Clock::now() - t0);
      break;
    }
    if (Us(Clock::now() - t0) > static_cast<double>(timeoutMs) * 1000) break;
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      std::fprintf(stderr, "rmbench start: %s exited before it listened\n", argv[0]);
      return 1;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
  if (us < 0) {
    std::fprintf(stderr, "rmbench start: nothing listened on %s within %ld ms\n", sap.c_str(),
                 timeoutMs);
    return 1;
  }
  std::printf("start_us=%.0f\n", us);
  return 0;
}

// Until a server on SAP answers a hello.
int CmdWait(cArgs const& a) {
  auto end = Clock::now() + std::chrono::milliseconds(a.Num("--timeout-ms", 10000));
  std::string error;
  for (;;) {
    if (Greets(a.Get("-s"), error)) return 0;
    if (Clock::now() > end) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  std::fprintf(stderr, "rmbench wait: %s\n", error.c_str());
  return 1;
}

// One cheap command on a new connection: its answer comes only once the
// daemon has finished what was queued before it (e.g. deleting the routes
// of a client that just went away).
int CmdSettle(cArgs const& a) {
  routeIO::cRouteClient client;
  if (!Connect(client, a.Get("-s"))) return 1;
  auto t0 = Clock::now();
  routeIO::routeResult r = client.DelRoute("probe-never-set");
  std::printf("settle_us=%.0f\n", Us(Clock::now() - t0));
  return r.rc == -100 ? 0 : 1;
}

// The same routes as `ip -batch` input: custom routes first..first+n-1,
// then the configured ones, as the proxy installs them.
int CmdIpBatch(cArgs const& a) {
  long n = a.Num("-n", 1000);
  long first = a.Num("--first", 0);
  long m = a.Num("--configured", 0);
  std::string op = a.Get("--op", "add");
  long proto = a.Num("--proto", bench::kReferenceProtocol);
  std::string tail = std::string(" via ") + bench::kGateway + " dev " + bench::kInterface +
                     " proto " + std::to_string(proto) + " metric 0\n";
  std::string out;
  out.reserve(static_cast<std::size_t>(n + m) * 80);
  for (long i = first; i < first + n; ++i) {
    out += "route " + op + " " +
           bench::Dotted(bench::CustomNetwork(static_cast<std::uint32_t>(i))) + "/" +
           std::to_string(bench::kCustomPrefixLen) + tail;
  }
  for (long i = 0; i < m; ++i) {
    out += "route " + op + " " +
           bench::Dotted(bench::ConfiguredNetwork(static_cast<std::uint32_t>(i))) + "/28" + tail;
  }
  std::fputs(out.c_str(), stdout);
  return 0;
}

// A device configuration for the data manager whose WAN setup in force,
// "bench", has M routes, each through its own gateway (so each is
// installed). With --wired W a second setup, "wired", has W routes through
// the wired WAN's gateway, so that switching setups, or changing that
// gateway, moves all of them.
int CmdConfig(cArgs const& a) {
  long m = std::min<long>(a.Num("-m", 100), bench::kMaxConfigured);
  long w = std::min<long>(a.Num("--wired", 0), bench::kMaxWired);
  std::string out =
      "{\n  \"status\": {\"wanSetup\": \"bench\"},\n"
      "  \"wanSetups\": {\n    \"bench\": {\n      \"routing\": {\n";
  for (long i = 0; i < m; ++i) {
    // Compact, without a line a route: 12,000 + 1,000 routes stay under
    // datamgr's 1 MiB limit for its file.
    out += "\"c" + std::to_string(i) + "\":{\"network\":\"" +
           bench::Dotted(bench::ConfiguredNetwork(static_cast<std::uint32_t>(i))) +
           "\",\"netmask\":\"255.255.255.240\",\"via\":\"own\",\"gateway\":\"" + bench::kGateway +
           "\"}" + (i + 1 < m ? ",\n" : "\n");
  }
  out += "      }\n    }";
  if (w > 0) {
    out += ",\n    \"wired\": {\n      \"routing\": {\n";
    for (long i = 0; i < w; ++i) {
      out += "\"w" + std::to_string(i) + "\":{\"network\":\"" +
             bench::Dotted(bench::WiredNetwork(static_cast<std::uint32_t>(i))) +
             "\",\"netmask\":\"255.255.255.240\",\"via\":\"wired\"}" + (i + 1 < w ? "," : "\n");
    }
    out += "      }\n    }";
  }
  out += "\n  }\n}\n";
  std::fputs(out.c_str(), stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  if (argc < 2) {
    std::fprintf(stderr, "usage: rmbench set|latency|probe|start|ipbatch|config ...\n");
    return 2;
  }
  std::string cmd = argv[1];
  cArgs a;
  if (!ParseArgs(argc, argv, 2, a)) return 2;
  if (cmd == "set") return CmdSet(a);
  if (cmd == "latency") return CmdLatency(a);
  if (cmd == "probe") return CmdProbe(a);
  if (cmd == "start") return CmdStart(a);
  if (cmd == "wait") return CmdWait(a);
  if (cmd == "settle") return CmdSettle(a);
  if (cmd == "ipbatch") return CmdIpBatch(a);
  if (cmd == "config") return CmdConfig(a);
  std::fprintf(stderr, "rmbench: unknown command '%s'\n", cmd.c_str());
  return 2;
}

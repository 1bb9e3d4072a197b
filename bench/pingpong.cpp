// rmbench-pingpong: the floor of one synchronous request to another process.
// It listens on SAP (the transport of the HAL link: "a.b.c.d:port" for TCP,
// "unix:/path"), forks a peer that answers every request frame with a reply
// frame, and sends it N requests one after the other, each waiting for its
// answer. Frames are the HAL link's, and as large as an installation and its
// answer, so the figure is what one HAL round trip costs at the least: two
// wake-ups and the socket calls around them, no work.
//
//   rmbench-pingpong -s SAP [-n N] [--warmup W]
//
// Prints key=value lines: round_trips, mean_us (the figure), p50_us, p99_us.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kest/access_point.h"
#include "kest/frame.h"

namespace {

using Clock = std::chrono::steady_clock;

// An installation request (network, netmask, gateway, source, interface as
// strings, metric, flag) is about this long; its answer is one i32.
constexpr std::size_t kRequestBody = 72;
constexpr std::size_t kReplyBody = 4;

bool WriteAll(int fd, std::vector<std::uint8_t> const& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// The next whole frame from fd; false at the end of the stream or on error.
bool ReadFrame(int fd, kest::cFrameReader& reader, kest::cFrame& frame) {
  std::uint8_t buf[4096];
  std::string error;
  for (;;) {
    switch (reader.Next(frame, error)) {
      case kest::cFrameReader::kFrame:
        return true;
      case kest::cFrameReader::kError:
        std::fprintf(stderr, "rmbench-pingpong: %s\n", error.c_str());
        return false;
      case kest::cFrameReader::kNeedMore:
        break;
    }
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    reader.Feed(buf, static_cast<std::size_t>(n));
  }
}

std::vector<std::uint8_t> Encoded(kest::cFrame::Kind kind, std::uint32_t id, std::size_t body) {
  kest::cFrame f;
  f.kind = kind;
  f.id = id;
  f.op = 1;
  std::vector<std::uint8_t> filler(body, 'x');
  f.body.Write(filler.data(), filler.size());
  std::vector<std::uint8_t> out;
  kest::EncodeFrame(f, out);
  return out;
}

void NoDelay(int fd, kest::cAccessPoint const& ap) {
  // As the HAL link: a small frame goes out at once.
  if (ap.kind != kest::cAccessPoint::kTcp) return;
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

[[noreturn]] void Answer(int listenFd, kest::cAccessPoint const& ap) {
  int fd = accept(listenFd, nullptr, nullptr);
  if (fd < 0) _exit(1);
  NoDelay(fd, ap);
  kest::cFrameReader reader;
  kest::cFrame req;
  auto const reply = Encoded(kest::cFrame::kReply, 1, kReplyBody);
  while (ReadFrame(fd, reader, req)) {
    if (!WriteAll(fd, reply)) break;
  }
  _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  std::string sap;
  long n = 20000, warmup = 500;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string k = argv[i];
    if (k == "-s")
      sap = argv[i + 1];
    else if (k == "-n")
      n = std::strtol(argv[i + 1], nullptr, 10);
    else if (k == "--warmup")
      warmup = std::strtol(argv[i + 1], nullptr, 10);
    else {
      std::fprintf(stderr, "usage: rmbench-pingpong -s SAP [-n N] [--warmup W]\n");
      return 2;
    }
  }
  kest::cAccessPoint ap;
  std::string error;
  if (n <= 0 || !kest::cAccessPoint::Parse(sap, ap, error)) {
    std::fprintf(stderr, "rmbench-pingpong: %s\n", error.empty() ? "bad -n" : error.c_str());
    return 2;
  }
  sockaddr_storage addr{};
  socklen_t len = ap.ToSockaddr(addr);
  int family = ap.kind == kest::cAccessPoint::kUnix ? AF_UNIX : AF_INET;
  if (ap.kind == kest::cAccessPoint::kUnix) unlink(ap.path.c_str());
  int listenFd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (listenFd < 0 || bind(listenFd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      listen(listenFd, 1) != 0) {
    std::fprintf(stderr, "rmbench-pingpong: cannot listen on %s: %s\n", sap.c_str(),
                 std::strerror(errno));
    return 1;
  }
  pid_t peer = fork();
  if (peer < 0) return 1;
  if (peer == 0) Answer(listenFd, ap);
  close(listenFd);

  int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    std::fprintf(stderr, "rmbench-pingpong: cannot connect to %s: %s\n", sap.c_str(),
                 std::strerror(errno));
    kill(peer, SIGTERM);
    return 1;
  }
  NoDelay(fd, ap);
  kest::cFrameReader reader;
  kest::cFrame reply;
  std::vector<double> us;
  us.reserve(static_cast<std::size_t>(n));
  auto const request = Encoded(kest::cFrame::kRequest, 1, kRequestBody);
  bool ok = true;
  auto start = Clock::now();
  for (long i = 0; ok && i < warmup + n; ++i) {
    if (i == warmup) start = Clock::now();
    auto t0 = Clock::now();
    ok = WriteAll(fd, request) && ReadFrame(fd, reader, reply);
    if (i >= warmup)
      us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  double totalUs = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
  close(fd);
  int status = 0;
  waitpid(peer, &status, 0);
  if (ap.kind == kest::cAccessPoint::kUnix) unlink(ap.path.c_str());
  if (!ok) {
    std::fprintf(stderr, "rmbench-pingpong: the peer went away\n");
    return 1;
  }
  std::sort(us.begin(), us.end());
  auto pct = [&](double p) {
    return us[static_cast<std::size_t>(p * static_cast<double>(us.size() - 1))];
  };
  std::printf("round_trips=%ld\nmean_us=%.2f\np50_us=%.2f\np99_us=%.2f\n", n,
              totalUs / static_cast<double>(n), pct(0.5), pct(0.99));
  return 0;
}

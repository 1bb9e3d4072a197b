// routectl: the route manager's route client on the command line.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kest/options.h"
#include "routeIO/route_client.h"
#include "routectl/answer.h"
#include "routectl/command.h"
#include "routectl/hal_table.h"
#include "routectl/line_reader.h"
#include "routectl/options.h"
#include "routectl/session.h"

namespace {

// Answers are collected at the latest after this many posted commands:
// keeps memory and the delay before output bounded on endless input.
constexpr std::size_t kPipelineWindow = 1024;
constexpr int kConnectRetryMs = 100;

constexpr int kExitFailed = 1;

class cClientLink : public routectl::IRouteLink {
 public:
  explicit cClientLink(routeIO::cRouteClient& client) : m_client(client) {}
  std::int32_t Post(routeIO::routeCommand const& cmd) override { return m_client.Post(cmd); }
  routeIO::routeResult Collect() override { return m_client.Collect(); }
  bool Connected() const override { return m_client.IsConnected(); }
  std::string LastError() const override { return m_client.LastError(); }

 private:
  routeIO::cRouteClient& m_client;
};

void PutLine(FILE* f, std::string const& line) {
  std::fwrite(line.data(), 1, line.size(), f);
  std::fputc('\n', f);
}

int Usage(std::string const& error) { return kest::UsageError("routectl", error); }

bool Connect(routeIO::cRouteClient& client, routectl::cOptions const& o) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(o.waitMs);
  std::string error;
  for (;;) {
    if (client.Connect(o.server, o.timeoutMs, error)) return true;
    if (std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(kConnectRetryMs));
  }
  std::fprintf(stderr, "routectl: cannot reach the route manager: %s\n", error.c_str());
  return false;
}

// Keeps the connection, and so the routes, until SIGINT or SIGTERM; false
// when the route manager closes it first, since the routes went with it.
bool Hold(int connection) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  std::fprintf(stderr,
               "routectl: holding the connection; routes stay until SIGINT/SIGTERM (Ctrl-C)\n");
  int signals = signalfd(-1, &set, SFD_CLOEXEC);
  // The route manager sends nothing unasked: the connection only wakes us
  // when it ends.
  pollfd p[2] = {{signals, POLLIN, 0}, {connection, POLLRDHUP, 0}};
  while (signals >= 0) {
    if (poll(p, 2, -1) < 0 && errno != EINTR) break;
    if (p[0].revents != 0) return true;
    if (p[1].revents != 0) {
      std::fprintf(stderr,
                   "routectl: the route manager closed the connection; the routes it held are "
                   "gone\n");
      return false;
    }
  }
  int sig = 0;  // no signalfd: wait for the signal alone
  while (sigwait(&set, &sig) != 0) {
  }
  return true;
}

int RunBatch(routectl::cSession& session, int fd, std::string const& name) {
  routectl::cLineReader reader(fd);
  std::string line;
  unsigned number = 0;
  for (;;) {
    routectl::cLineReader::Result r = reader.Next(line);
    if (r == routectl::cLineReader::kEof) break;
    if (r == routectl::cLineReader::kError) {
      std::fprintf(stderr, "routectl: reading %s: %s\n", name.c_str(), std::strerror(errno));
      session.Drain();
      return kExitFailed;
    }
    ++number;
    bool go = r == routectl::cLineReader::kTooLong ? session.Oversized(number)
                                                   : session.Line(number, line);
    if (!go) break;
    if (session.Outstanding() >= kPipelineWindow || !reader.Ready()) {
      session.Drain();
      std::fflush(stdout);
    }
  }
  session.Drain();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  routectl::cOptions o;
  std::string error;
  if (int const status = routectl::ParseOptions(argc, argv, o); status >= 0) return status;

  if (o.halTable) {
    std::vector<std::string> lines;
    if (!routectl::FetchHalTable(o.hal, o.timeoutMs, lines, error)) {
      std::fprintf(stderr, "routectl: cannot list the HAL proxy's table at %s: %s\n", o.hal.c_str(),
                   error.c_str());
      return kExitFailed;
    }
    for (auto const& l : lines) PutLine(stdout, o.json ? routectl::HalRouteJson(l) : l);
    return 0;
  }

  routectl::cParsed single;
  if (o.batch.empty()) {
    std::vector<std::string_view> words(o.words.begin(), o.words.end());
    single = routectl::ParseWords(words);
    if (single.kind != routectl::cParsed::kCommand) return Usage(single.error);
    if (!o.hold && std::holds_alternative<routeIO::cSetRouteCmd>(single.command)) {
      std::fprintf(stderr,
                   "routectl: warning: the route is deleted again as soon as routectl exits "
                   "(a route lives as long as its client's connection); use -b FILE or --hold "
                   "to keep it\n");
    }
  }

  int fd = -1;
  if (o.batch == "-") {
    fd = STDIN_FILENO;
  } else if (!o.batch.empty()) {
    fd = ::open(o.batch.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return Usage("cannot open " + o.batch + ": " + std::strerror(errno));
  }

  routeIO::cRouteClient client;
  if (!Connect(client, o)) return kExitFailed;
  cClientLink link(client);
  routectl::cSession session(
      link, o.json, o.strict, [](std::string const& l) { PutLine(stdout, l); },
      [](std::string const& l) {
        std::fflush(stdout);  // keep messages in their place among the answers
        PutLine(stderr, l);
      });

  int status = 0;
  if (fd >= 0) {
    status = RunBatch(session, fd, o.batch == "-" ? "standard input" : o.batch);
    if (fd != STDIN_FILENO) ::close(fd);
  } else {
    session.Send(0, single.command);
    session.Drain();
  }
  std::fflush(stdout);
  if (o.hold && status == 0 && !session.Stopped() && !Hold(client.Fd())) status = kExitFailed;
  client.Close();
  return status != 0 ? status : session.ExitStatus();
}

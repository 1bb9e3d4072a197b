#include "datactl_cli.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "config_json.h"
#include "device_config.h"
#include "kest/access_point.h"
#include "kest/format.h"
#include "kest/frame.h"

namespace datamgr {

char const* const kDatactlUsage =
    "Usage: datactl [--server ADDR] COMMAND [ARGS]\n"
    "Changes and inspects the data manager's store (ADDR default 127.0.0.1:3711,\n"
    "also unix:/path).\n"
    "Commands:\n"
    "  set-wan-setup NAME      make NAME the WAN setup in force\n"
    "  route-set SETUP KEY PREFIX via wired|wireless|vpn|GWADDR [desc TEXT]\n"
    "                          add or replace a routing entry (PREFIX a.b.c.d/len\n"
    "                          or a.b.c.d/m.m.m.m; GWADDR: the entry's own gateway)\n"
    "  route-del SETUP KEY     delete a routing entry\n"
    "  dump DIR                ask every connected client to dump its state into DIR\n"
    "  list [DIR]              list the directories, or the records under DIR\n"
    "Changes last until the data manager reloads its configuration file.\n";

namespace {

bool Count(std::vector<std::string> const& rest, std::size_t min, std::size_t max,
           std::string& error) {
  if (rest.size() - 1 >= min && rest.size() - 1 <= max) return true;
  error = rest[0] + ": wrong number of arguments";
  return false;
}

bool ParseRouteSet(std::vector<std::string> const& rest, ctl::cRequest& req, std::string& error) {
  // route-set SETUP KEY PREFIX via TARGET [desc TEXT]
  if (!(rest.size() == 6 || rest.size() == 8) || rest[4] != "via" ||
      (rest.size() == 8 && rest[6] != "desc")) {
    error = "route-set: expected SETUP KEY PREFIX via wired|wireless|vpn|GWADDR [desc TEXT]";
    return false;
  }
  req.op = ctl::kOpRouteSet;
  req.setup = rest[1];
  req.key = rest[2];
  if (!ParsePrefix(rest[3], req.network, req.netmask, error)) {
    error = "route-set: " + error;
    return false;
  }
  std::string const& target = rest[5];
  if (target == "own") {
    error = "route-set: give the gateway address itself instead of \"own\"";
    return false;
  }
  if (!SelectorFromText(target, req.selector)) {
    if (!ParseIPv4(target, req.gateway)) {
      error = "route-set: \"" + target + "\" is neither wired, wireless, vpn nor an IPv4 address";
      return false;
    }
    req.selector = dataIO::kGwSelectorOwn;
  }
  if (rest.size() == 8) req.description = rest[7];
  return true;
}

}  // namespace

bool ParseDatactlArgs(std::vector<std::string> const& args, std::string& server,
                      ctl::cRequest& req, bool& help, std::string& error) {
  help = false;
  server = kDefaultAccessPoint;
  std::size_t i = 0;
  for (; i < args.size() && args[i].rfind("--", 0) == 0; ++i) {
    if (args[i] == "--help") {
      help = true;
      return true;
    }
    if (args[i] == "--server" && i + 1 < args.size()) {
      server = args[++i];
    } else if (args[i].rfind("--server=", 0) == 0) {
      server = args[i].substr(9);
    } else {
      error = args[i] == "--server" ? "--server needs an address" : "unknown option " + args[i];
      return false;
    }
  }
  kest::cAccessPoint ap;
  if (!kest::cAccessPoint::Parse(server, ap, error)) {
    error = "--server: " + error;
    return false;
  }
  if (i == args.size()) {
    error = "no command given";
    return false;
  }
  std::vector<std::string> const rest(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
  std::string const& cmd = rest[0];
  req = ctl::cRequest{};
  if (cmd == "set-wan-setup") {
    if (!Count(rest, 1, 1, error)) return false;
    req.op = ctl::kOpSetWanSetup;
    req.setup = rest[1];
  } else if (cmd == "route-set") {
    return ParseRouteSet(rest, req, error);
  } else if (cmd == "route-del") {
    if (!Count(rest, 2, 2, error)) return false;
    req.op = ctl::kOpRouteDel;
    req.setup = rest[1];
    req.key = rest[2];
  } else if (cmd == "dump") {
    if (!Count(rest, 1, 1, error)) return false;
    req.op = ctl::kOpDump;
    req.dir = rest[1];
  } else if (cmd == "list") {
    if (!Count(rest, 0, 1, error)) return false;
    req.op = ctl::kOpList;
    if (rest.size() == 2) req.dir = rest[1];
  } else {
    error = "unknown command " + cmd;
    return false;
  }
  return true;
}

namespace {

class cFd {
 public:
  explicit cFd(int fd) : m_fd(fd) {}
  ~cFd() {
    if (m_fd >= 0) close(m_fd);
  }
  int Get() const { return m_fd; }

 private:
  int m_fd;
};

// Waits for the socket to become ready; false on timeout or error.
bool Wait(int fd, short events, std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) return false;
    pollfd p{fd, events, 0};
    int const n = poll(&p, 1, static_cast<int>(left));
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

}  // namespace

bool SendControl(std::string const& server, ctl::cRequest const& req, ctl::cReply& reply,
                 std::string& error, int timeoutMs) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  kest::cAccessPoint ap;
  if (!kest::cAccessPoint::Parse(server, ap, error)) return false;
  cFd sock(socket(ap.kind == kest::cAccessPoint::kUnix ? AF_UNIX : AF_INET,
                  SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_storage sa{};
  unsigned const len = ap.ToSockaddr(sa);
  // Bounds a blocking connect as well.
  timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  if (sock.Get() >= 0) setsockopt(sock.Get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  if (sock.Get() < 0 || connect(sock.Get(), reinterpret_cast<sockaddr*>(&sa), len) != 0) {
    error = kest::FormatString("cannot connect to %s: %s", server.c_str(), std::strerror(errno));
    return false;
  }
  kest::cFrame frame;
  frame.kind = kest::cFrame::kRequest;
  frame.id = 1;
  frame.op = req.op;
  ctl::Encode(req, frame.body);
  std::vector<std::uint8_t> out;
  kest::EncodeFrame(frame, out);
  std::size_t sent = 0;
  while (sent < out.size()) {
    if (!Wait(sock.Get(), POLLOUT, deadline)) {
      error = "timed out sending to " + server;
      return false;
    }
    ssize_t const n = send(sock.Get(), out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno != EINTR && errno != EAGAIN) {
      error = kest::FormatString("cannot send to %s: %s", server.c_str(), std::strerror(errno));
      return false;
    }
    if (n > 0) sent += static_cast<std::size_t>(n);
  }
  kest::cFrameReader reader;
  for (;;) {
    kest::cFrame in;
    std::string why;
    switch (reader.Next(in, why)) {
      case kest::cFrameReader::kError:
        error = "bad reply from " + server + ": " + why;
        return false;
      case kest::cFrameReader::kFrame:
        // Events (a dump request, say) may come first; only our reply counts.
        if (in.kind != kest::cFrame::kReply || in.id != frame.id) continue;
        if (!ctl::Decode(in.body, reply, why)) {
          error = "bad reply from " + server + ": " + why;
          return false;
        }
        return true;
      case kest::cFrameReader::kNeedMore:
        break;
    }
    if (!Wait(sock.Get(), POLLIN, deadline)) {
      error = "no reply from " + server + " within the timeout";
      return false;
    }
    std::uint8_t buf[4096];
    ssize_t const n = recv(sock.Get(), buf, sizeof buf, 0);
    if (n == 0) {
      error = server + " closed the connection without a reply";
      return false;
    }
    if (n < 0 && errno != EINTR && errno != EAGAIN) {
      error = kest::FormatString("cannot read from %s: %s", server.c_str(), std::strerror(errno));
      return false;
    }
    if (n > 0) reader.Feed(buf, static_cast<std::size_t>(n));
  }
}

}  // namespace datamgr

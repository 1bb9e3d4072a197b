#include "kest/server.h"

#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kest/format.h"
#include "kest/trace.h"

namespace kest {
namespace {

constexpr int kBacklog = 16;
// Out of descriptors: stop accepting this long instead of spinning on a
// listener that stays readable.
constexpr std::uint64_t kAcceptPauseMs = 100;

std::string Errno(int err) { return FormatString("errno:%d/%s", err, std::strerror(err)); }

// Numbers need not exist in the user database; 4294967295 is "no id" to the
// kernel and never a peer's.
bool LookUpId(std::string const& item, bool groups, std::set<unsigned>& ids) {
  if (item.find_first_not_of("0123456789") == std::string::npos) {
    std::size_t n = 0;
    std::string ignored;
    if (!ParseCount(item, 0, n, ignored) || n == 0xFFFFFFFFu) return false;
    ids.insert(static_cast<unsigned>(n));
    return true;
  }
  if (groups) {
    group* g = getgrnam(item.c_str());
    if (g) ids.insert(static_cast<unsigned>(g->gr_gid));
    return g != nullptr;
  }
  passwd* p = getpwnam(item.c_str());
  if (p) ids.insert(static_cast<unsigned>(p->pw_uid));
  return p != nullptr;
}

// Unread input at close makes TCP reset the connection, and a reset can
// overtake the refusal just written; what the peer sent is of no interest.
void DrainInput(int fd) {
  std::uint8_t buf[4096];
  for (int i = 0; i < 16; ++i) {
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0 || (n < 0 && errno == EINTR)) continue;
    return;
  }
}

}  // namespace

char const kLimitOptionsUsage[] =
    "  --max-connections=N            connections served at once (default 64)\n"
    "  --max-per-uid=N                Unix socket: connections one user may hold at once\n"
    "                                 (default 16; root is not limited; 0: no limit)\n"
    "  --frame-timeout=MS             a peer's time to say hello and to finish each frame\n"
    "                                 it starts (default 10000)\n"
    "  --send-limit=BYTES             answers queued for a client that does not read\n"
    "                                 before it is disconnected (default 1048576)\n"
    "  --socket-mode=OCTAL            Unix socket: the file's mode (default 0660)\n"
    "  --socket-group=GROUP           Unix socket: the file's group (name or number)\n"
    "  --allow-uid=USER[,USER...]     Unix socket: serve only these users (names or\n"
    "  --allow-gid=GROUP[,GROUP...]   numbers) and these groups; repeatable\n";

namespace {
char const* const kLimitOptionNames[] = {"max-connections", "max-per-uid", "frame-timeout",
                                         "send-limit",      "socket-mode", "socket-group",
                                         "allow-uid",       "allow-gid"};
constexpr int kLimitOptionCount = sizeof kLimitOptionNames / sizeof kLimitOptionNames[0];
}  // namespace

void AddLimitOptions(std::vector<cOption>& options) {
  for (int i = 0; i < kLimitOptionCount; ++i)
    options.push_back({kLimitOptionNames[i], kLimitOptionKey + i, true});
}

bool TakeLimitOption(int key, std::string const& value, cServerLimits& limits, bool& ok,
                     bool& unixOnly, std::string& why) {
  int const i = key - kLimitOptionKey;
  if (i < 0 || i >= kLimitOptionCount) return false;
  return TakeLimitOption(std::string("--") + kLimitOptionNames[i], value, limits, ok, unixOnly,
                         why);
}

bool TakeLimitOption(std::string const& name, std::string const& value, cServerLimits& l, bool& ok,
                     bool& unixOnly, std::string& why) {
  ok = !value.empty();
  why = "empty";
  unixOnly = name != "--max-connections" && name != "--send-limit" && name != "--frame-timeout";
  if (name == "--max-connections") {
    ok = ok && ParseCount(value, 1, l.maxConnections, why);
  } else if (name == "--max-per-uid") {
    ok = ok && ParseCount(value, 0, l.maxPerUid, why);
  } else if (name == "--frame-timeout") {
    ok = ok && ParseCount(value, 1, l.frameTimeoutMs, why);
  } else if (name == "--send-limit") {
    ok = ok && ParseCount(value, kMinSendLimit, l.sendLimit, why);
  } else if (name == "--socket-mode") {
    ok = ok && ParseSocketMode(value, l.socketMode, why);
  } else if (name == "--socket-group") {
    if (ok) l.socketGroup = value;  // looked up when the socket is made
  } else if (name == "--allow-uid") {
    ok = ok && ParseIdList(value, false, l.allowUids, why);
  } else if (name == "--allow-gid") {
    ok = ok && ParseIdList(value, true, l.allowGids, why);
  } else {
    return false;
  }
  return true;
}

bool ParseSocketMode(std::string const& text, unsigned& mode, std::string& error) {
  unsigned v = 0;
  bool ok = !text.empty() && text.size() <= 4;
  for (char c : text) {
    ok = ok && c >= '0' && c <= '7';
    v = v * 8 + static_cast<unsigned>(c - '0');
  }
  if (!ok || v > 0777) {
    error = FormatString("bad socket mode \"%s\" (expected octal permission bits such as 0660)",
                         text.c_str());
    return false;
  }
  mode = v;
  return true;
}

bool ParseIdList(std::string const& text, bool groups, std::set<unsigned>& ids,
                 std::string& error) {
  char const* what = groups ? "group" : "user";
  std::set<unsigned> found;
  if (text.empty()) return true;
  for (std::size_t start = 0;;) {
    std::size_t comma = text.find(',', start);
    std::string item = text.substr(start, comma == std::string::npos ? comma : comma - start);
    std::size_t b = item.find_first_not_of(" \t"), e = item.find_last_not_of(" \t");
    item = b == std::string::npos ? std::string() : item.substr(b, e - b + 1);
    if (item.empty()) {
      error = FormatString("empty entry in the %s list \"%s\"", what, text.c_str());
      return false;
    }
    if (!LookUpId(item, groups, found)) {
      error = FormatString("unknown %s \"%s\" in \"%s\"", what, item.c_str(), text.c_str());
      return false;
    }
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  ids.insert(found.begin(), found.end());
  return true;
}

bool ParseCount(std::string const& text, std::size_t min, std::size_t& out, std::string& error) {
  std::uint64_t v = 0;  // ten digits fit, also where size_t has 32 bits
  bool ok = !text.empty() && text.size() <= 10;
  for (char c : text) {
    ok = ok && c >= '0' && c <= '9';
    v = v * 10 + static_cast<std::uint64_t>(c - '0');
  }
  if (!ok || v < min || v > 0xFFFFFFFFu) {
    error = FormatString("bad number \"%s\" (expected a whole number from %zu to 4294967295)",
                         text.c_str(), min);
    return false;
  }
  out = static_cast<std::size_t>(v);
  return true;
}

// The service is part of the signature so a server always belongs to one; the
// process has a single loop, so nothing else is taken from it.
cServer::cServer(cService* /*service*/, IServerHandler* handler, std::string traceModule,
                 cServiceId const& self)
    : m_handler(handler), m_module(std::move(traceModule)), m_self(self) {}

cServer::~cServer() {
  m_handler = nullptr;
  Close();
}

bool cServer::Listen(std::string const& accessPoint, std::string& error) {
  if (m_listenFd >= 0) {
    error = FormatString("already listening on %s", m_ap.ToString().c_str());
    return false;
  }
  if (!cAccessPoint::Parse(accessPoint, m_ap, error)) {
    KEST_TRACE(m_module, kTransportError, "cannot listen: %s", error.c_str());
    return false;
  }
  bool isUnix = m_ap.kind == cAccessPoint::kUnix;
  if (!isUnix && !(m_limits.allowUids.empty() && m_limits.allowGids.empty())) {
    error = FormatString(
        "cannot listen on %s: peer allow-lists need a Unix socket (TCP peers "
        "have no credentials)",
        accessPoint.c_str());
    KEST_TRACE(m_module, kTransportError, "%s", error.c_str());
    return false;
  }
  std::string why;
  int fd = OpenListener(why);
  if (fd < 0) {
    error = FormatString("cannot listen on %s: %s", accessPoint.c_str(), why.c_str());
    KEST_TRACE(m_module, kTransportError, "%s", error.c_str());
    return false;
  }
  m_listenFd = fd;
  m_unixPath = isUnix ? m_ap.path : std::string();
  Loop().WatchFd(fd, EPOLLIN, [this](std::uint32_t) { Accept(); });
  if (isUnix || m_ap.IsLoopback()) {
    KEST_TRACE(m_module, kTransportInfo, "listening on %s (%s)", Where().c_str(), Bounds().c_str());
  } else {
    KEST_TRACE(m_module, kTransportInfo,
               "listening on %s, which is not a loopback address: other hosts can connect (%s)",
               Where().c_str(), Bounds().c_str());
  }
  return true;
}

std::string cServer::Bounds() const {
  std::string s;
  if (m_ap.kind == cAccessPoint::kUnix) {
    s = FormatString("mode %04o", m_limits.socketMode);
    if (!m_limits.socketGroup.empty()) s += ", group " + m_limits.socketGroup;
    auto list = [](char const* what, std::set<unsigned> const& ids) {
      std::string out;
      for (unsigned id : ids) out += (out.empty() ? "" : ",") + std::to_string(id);
      return out.empty() ? out : FormatString(", %s %s", what, out.c_str());
    };
    if (m_limits.allowUids.empty() && m_limits.allowGids.empty()) {
      s += ", any user the mode lets in";
    } else {
      s += list("uids", m_limits.allowUids) + list("gids", m_limits.allowGids);
    }
  } else if (m_ap.IsLoopback()) {
    s = "loopback only";
  }
  if (!s.empty()) s += "; ";
  s += FormatString("at most %zu connections", m_limits.maxConnections);
  if (m_ap.kind == cAccessPoint::kUnix && m_limits.maxPerUid != 0) {
    s += FormatString(", %zu per user", m_limits.maxPerUid);
  }
  return s + FormatString(", send limit %zu bytes, %zu ms to finish a hello or frame",
                          m_limits.sendLimit, m_limits.frameTimeoutMs);
}

int cServer::OpenListener(std::string& why) {
  bool isUnix = m_ap.kind == cAccessPoint::kUnix;
  int fd = socket(isUnix ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    why = "socket: " + Errno(errno);
    return -1;
  }
  if (!isUnix) {
    // A restarted daemon must get its port back while old connections linger in TIME_WAIT.
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  }
  sockaddr_storage sa{};
  unsigned len = m_ap.ToSockaddr(sa);
  auto fail = [&](std::string reason, bool unlinkPath) {
    why = std::move(reason);
    if (unlinkPath) unlink(m_ap.path.c_str());
    close(fd);
    return -1;
  };
  if (isUnix && !PrepareUnixPath(m_ap.path, why)) return fail(why, false);
  if (bind(fd, reinterpret_cast<sockaddr*>(&sa), len) != 0)
    return fail("bind: " + Errno(errno), false);
  if (isUnix && !SetUnixAccess(m_ap.path, why)) return fail(why, true);
  if (listen(fd, kBacklog) != 0) return fail("listen: " + Errno(errno), isUnix);
  return fd;
}

// A socket file left by a dead server is removed; a live server's is not
// taken over, and a file that is not a socket is never deleted.
bool cServer::PrepareUnixPath(std::string const& path, std::string& why) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return true;
  if (!S_ISSOCK(st.st_mode)) {
    why = "the path exists and is not a socket";
    return false;
  }
  int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_storage sa{};
  unsigned len = m_ap.ToSockaddr(sa);
  bool live = probe >= 0 && connect(probe, reinterpret_cast<sockaddr*>(&sa), len) == 0;
  if (probe >= 0) close(probe);
  if (live) {
    why = "another server is listening on it";
    return false;
  }
  if (unlink(path.c_str()) != 0) {
    why = "cannot remove the stale socket: " + Errno(errno);
    return false;
  }
  return true;
}

bool cServer::SetUnixAccess(std::string const& path, std::string& why) {
  if (chmod(path.c_str(), m_limits.socketMode) != 0) {
    why = "chmod: " + Errno(errno);
    return false;
  }
  if (m_limits.socketGroup.empty()) return true;
  gid_t gid;
  char* end = nullptr;
  unsigned long num = std::strtoul(m_limits.socketGroup.c_str(), &end, 10);
  if (end && *end == '\0') {
    gid = static_cast<gid_t>(num);
  } else {
    group* g = getgrnam(m_limits.socketGroup.c_str());
    if (!g) {
      why = FormatString("unknown group \"%s\"", m_limits.socketGroup.c_str());
      return false;
    }
    gid = g->gr_gid;
  }
  if (chown(path.c_str(), static_cast<uid_t>(-1), gid) != 0) {
    why = FormatString("chown to group %s: %s", m_limits.socketGroup.c_str(), Errno(errno).c_str());
    return false;
  }
  return true;
}

std::uint16_t cServer::BoundPort() const {
  if (m_listenFd < 0 || m_ap.kind != cAccessPoint::kTcp) return 0;
  sockaddr_in in{};
  socklen_t len = sizeof in;
  if (getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&in), &len) != 0) return 0;
  return ntohs(in.sin_port);
}

std::string cServer::Where() const {
  cAccessPoint bound = m_ap;
  if (bound.kind == cAccessPoint::kTcp) bound.port = BoundPort();
  return bound.ToString();
}

void cServer::Accept() {
  while (m_listenFd >= 0) {
    int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      int err = errno;
      if (err == EINTR || err == ECONNABORTED) continue;
      if (err == EAGAIN || err == EWOULDBLOCK) return;
      KEST_TRACE(m_module, kTransportError, "cannot accept on %s (%s); pausing for %u ms",
                 Where().c_str(), Errno(err).c_str(), static_cast<unsigned>(kAcceptPauseMs));
      PauseAccepting();
      return;
    }
    s_socket_addr addr;
    std::string peer = cChannel::DescribePeer(fd, addr);
    cConn conn;
    std::string refusal = Admit(fd, conn.hasUid, conn.uid);
    if (!refusal.empty()) {
      RefuseFd(fd, peer, refusal);
      continue;
    }
    conn.channel.reset(new cChannel(fd, addr, peer, this));
    conn.channel->SetSendLimit(m_limits.sendLimit);
    cChannel* raw = conn.channel.get();
    ArmStall(m_channels[raw] = std::move(conn), "its hello");
  }
}

std::string cServer::Admit(int fd, bool& hasUid, unsigned& uid) {
  if (m_channels.size() >= m_limits.maxConnections) {
    return FormatString("%zu connections open, the limit", m_channels.size());
  }
  if (m_ap.kind != cAccessPoint::kUnix) return std::string();
  ucred cred{};
  socklen_t len = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
    return "no peer credentials (" + Errno(errno) + ")";
  }
  hasUid = true;
  uid = static_cast<unsigned>(cred.uid);
  bool const listed =
      m_limits.allowUids.count(cred.uid) ||
      cChannel::PeerInGroups(fd, static_cast<unsigned>(cred.gid), m_limits.allowGids);
  if (!listed && !(m_limits.allowUids.empty() && m_limits.allowGids.empty())) {
    return FormatString("uid %u gid %u not allowed", uid, static_cast<unsigned>(cred.gid));
  }
  if (uid == 0 || m_limits.maxPerUid == 0) return std::string();
  std::size_t held = 0;
  for (auto const& c : m_channels) held += c.second.hasUid && c.second.uid == uid;
  if (held >= m_limits.maxPerUid) {
    return FormatString("uid %u holds %zu connections, the limit per user", uid, held);
  }
  return std::string();
}

void cServer::RefuseFd(int fd, std::string const& peer, std::string const& reason) {
  KEST_TRACE(m_module, kTransportError, "refusing connection from %s on %s: %s", peer.c_str(),
             Where().c_str(), reason.c_str());
  std::vector<std::uint8_t> out;
  EncodeFrame(RefusalFrame(m_self, reason), out);
  // A fresh socket's send buffer is empty: the small frame leaves whole or
  // not at all, and the peer learns why either way from the close.
  ssize_t sent;
  do {
    sent = send(fd, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  DrainInput(fd);
  close(fd);
}

void cServer::Refuse(cChannel* channel, std::string const& reason) {
  auto it = m_channels.find(channel);
  if (it == m_channels.end() || !channel->IsOpen()) return;
  KEST_TRACE(m_module, kTransportError, "%s connection from %s on %s: %s",
             it->second.greeted ? "closing" : "refusing", channel->PeerText().c_str(),
             Where().c_str(), reason.c_str());
  channel->Append(RefusalFrame(m_self, reason), false);
  DrainInput(channel->Fd());
  channel->Close(reason);
}

void cServer::ArmStall(cConn& conn, char const* what) {
  if (conn.stall) return;
  cChannel* channel = conn.channel.get();
  std::string const due = what;
  conn.stall = Loop().AddTimer(m_limits.frameTimeoutMs, [this, channel, due] {
    auto it = m_channels.find(channel);
    if (it == m_channels.end()) return;
    it->second.stall = 0;
    Refuse(channel,
           FormatString("%s did not arrive within %zu ms", due.c_str(), m_limits.frameTimeoutMs));
  });
}

void cServer::DisarmStall(cConn& conn) {
  if (conn.stall) Loop().CancelTimer(conn.stall);
  conn.stall = 0;
}

void cServer::PauseAccepting() {
  Loop().UnwatchFd(m_listenFd);
  m_resumeTimer = Loop().AddTimer(kAcceptPauseMs, [this] {
    m_resumeTimer = 0;
    if (m_listenFd >= 0) Loop().WatchFd(m_listenFd, EPOLLIN, [this](std::uint32_t) { Accept(); });
  });
}

void cServer::Close() {
  if (m_resumeTimer) Loop().CancelTimer(m_resumeTimer);
  m_resumeTimer = 0;
  if (m_listenFd >= 0) {
    Loop().UnwatchFd(m_listenFd);
    close(m_listenFd);
    m_listenFd = -1;
    if (!m_unixPath.empty()) unlink(m_unixPath.c_str());
    m_unixPath.clear();
  }
  std::vector<cChannel*> open;
  for (auto& c : m_channels) open.push_back(c.first);
  for (cChannel* c : open) c->Close("server closed");
}

void cServer::OnChannelClosed(cChannel* channel, std::string const&) {
  auto it = m_channels.find(channel);
  if (it == m_channels.end()) return;
  DisarmStall(it->second);
  // The channel may be closing from inside its own callback: it is deleted
  // from the loop, after that callback has returned.
  std::unique_ptr<cChannel> dying(std::move(it->second.channel));
  bool const greeted = it->second.greeted;
  m_channels.erase(it);
  if (m_handler && greeted) m_handler->OnClose(channel);
  Loop().DeleteLater(std::move(dying));
}

void cServer::OnFrame(cChannel* channel, cFrame& frame) {
  auto it = m_channels.find(channel);
  if (it == m_channels.end()) return;
  cConn& conn = it->second;
  conn.progress = true;
  if (!conn.greeted) {
    Greet(conn, frame);
  } else if (frame.op == kHelloOp) {
    // Operation 0 is the transport's in every service: asked again, the same answer.
    if (frame.kind == cFrame::kRequest) channel->Send(AcceptFrame(frame.id, m_self));
  } else if (m_handler) {
    m_handler->OnFrame(channel, frame);
  }
}

void cServer::Greet(cConn& conn, cFrame& frame) {
  cChannel* channel = conn.channel.get();
  std::string const refusal = JudgeHello(frame, m_self);
  if (!refusal.empty()) {
    Refuse(channel, refusal);
    return;
  }
  DisarmStall(conn);
  conn.greeted = true;
  channel->Send(AcceptFrame(frame.id, m_self));
  if (m_handler) m_handler->OnOpen(channel);
}

void cServer::OnFramesDone(cChannel* channel) {
  auto it = m_channels.find(channel);
  if (it == m_channels.end()) return;
  cConn& conn = it->second;
  if (conn.greeted) {
    // The clock runs from the first byte of a frame that is still not whole;
    // a peer that keeps completing frames is never cut off.
    if (conn.progress) DisarmStall(conn);
    if (channel->Unfinished() > 0) ArmStall(conn, "the rest of a frame");
  }
  conn.progress = false;
  if (m_handler && conn.greeted) m_handler->OnFramesDone(channel);
}

bool cServer::Reply(cChannel* channel, std::uint32_t id, std::uint16_t op,
                    cSerializeBuffer const& body) {
  auto it = m_channels.find(channel);
  if (it == m_channels.end() || !it->second.greeted) return false;
  cFrame frame;
  frame.kind = cFrame::kReply;
  frame.id = id;
  frame.op = op;
  frame.body = body;
  return channel->Send(frame);
}

}  // namespace kest

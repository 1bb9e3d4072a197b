#include "kest/trace.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace kest {
namespace {

long LevelNumber(std::string const& level) { return std::strtol(level.c_str(), nullptr, 10); }

// The syslog priority of a trace level ("000" most severe); the README has
// the table.
int Priority(std::string const& level) {
  long n = LevelNumber(level);
  return n <= 1   ? LOG_ERR
         : n == 2 ? LOG_WARNING
         : n <= 4 ? LOG_NOTICE
         : n == 5 ? LOG_INFO
                  : LOG_DEBUG;
}

// systemd names the journal stream it connects to standard error in
// JOURNAL_STREAM ("device:inode"); the journal then reads a leading "<N>" as
// the line's priority. A program whose standard error was sent elsewhere may
// still inherit the variable, hence the comparison with what fd 2 is.
bool StderrIsJournal() {
  char const* stream = std::getenv("JOURNAL_STREAM");
  unsigned long long dev = 0, ino = 0;
  char rest = 0;
  struct stat st;
  return stream != nullptr && std::sscanf(stream, "%llu:%llu%c", &dev, &ino, &rest) == 2 &&
         ::fstat(STDERR_FILENO, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
}

char const* BaseName(char const* file) {
  if (file == nullptr) return "?";
  char const* slash = std::strrchr(file, '/');
  return slash ? slash + 1 : file;
}

// Sends all of a line, or nothing more once the peer is gone. Signals are
// installed without SA_RESTART, so any of them may interrupt a write that
// waits for room; a stream may also take only part of a line.
bool WriteAll(int fd, bool socket, char const* data, std::size_t len) {
  while (len > 0) {
    ssize_t n = socket ? ::send(fd, data, len, MSG_NOSIGNAL) : ::write(fd, data, len);
    if (n > 0) {
      data += n;
      len -= static_cast<std::size_t>(n);
    } else if (n < 0 && errno == EAGAIN) {
      pollfd p = {fd, POLLOUT, 0};  // somebody made the descriptor non-blocking
      if (::poll(&p, 1, -1) < 0 && errno != EINTR) return false;
    } else if (n == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

// One line per trace: "module level file:line message". A multi-line message
// is folded so that each trace stays one line of the log.
class cStderrSink : public ITraceSink {
 public:
  cStderrSink() { Open(); }
  void Open() { m_journal = StderrIsJournal(); }
  void Write(cTraceRecord const& rec) override {
    std::string msg = rec.message;
    while (!msg.empty() && (msg.back() == '\n' || msg.back() == '\r')) msg.pop_back();
    std::replace(msg.begin(), msg.end(), '\n', ' ');
    std::string line = rec.module + " " + rec.level + " " + rec.file + ":" +
                       std::to_string(rec.line) + " " + msg + "\n";
    if (m_journal) line = "<" + std::to_string(Priority(rec.level)) + ">" + line;
    // One write per line keeps lines whole when several processes share stderr.
    WriteAll(STDERR_FILENO, false, line.data(), line.size());
  }

 private:
  bool m_journal = false;
};

// Writes to the syslog daemon's socket itself, in the form syslog(3) uses:
// syslog(3) gives a line up when a signal interrupts its send twice.
class cSyslogSink : public ITraceSink {
 public:
  void Open(std::string const& ident) {
    Close();
    m_ident = ident;
  }
  void Close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
  }
  void Write(cTraceRecord const& rec) override {
    int prio = Priority(rec.level);
    char stamp[32] = "";
    std::time_t now = std::time(nullptr);
    std::tm tm;
    if (localtime_r(&now, &tm) != nullptr) std::strftime(stamp, sizeof stamp, "%b %e %T", &tm);
    std::string line = "<" + std::to_string(LOG_DAEMON | prio) + ">" + stamp + " " + m_ident + "[" +
                       std::to_string(getpid()) + "]: " + rec.module + " " + rec.level + " " +
                       rec.file + ":" + std::to_string(rec.line) + " " + rec.message;
    // A daemon restarted since the last line wants a new connection.
    for (int attempt = 0; attempt < 2; ++attempt) {
      if (m_fd < 0 && !Connect()) return;
      // A stream socket needs the end of each message marked.
      if (WriteAll(m_fd, true, line.c_str(), line.size() + (m_stream ? 1 : 0))) return;
      Close();
    }
  }

 private:
  bool Connect() {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, _PATH_LOG);
    for (int type : {SOCK_DGRAM, SOCK_STREAM}) {
      m_fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
      if (m_fd < 0) return false;
      int rc;
      do {
        rc = ::connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
      } while (rc < 0 && errno == EINTR);
      if (rc == 0 || errno == EISCONN) {
        m_stream = type == SOCK_STREAM;
        return true;
      }
      int const err = errno;
      Close();
      if (err != EPROTOTYPE) return false;  // EPROTOTYPE: the daemon listens on a stream
    }
    return false;
  }

  std::string m_ident;
  int m_fd = -1;
  bool m_stream = false;
};

class cOffSink : public ITraceSink {
 public:
  void Write(cTraceRecord const&) override {}
};

struct TraceState {
  cStderrSink stderrSink;
  cSyslogSink syslogSink;
  cOffSink offSink;
  ITraceSink* builtin = &stderrSink;
  ITraceSink* custom = nullptr;
  long maxLevel = 999;
};

TraceState& State() {
  static TraceState state;
  return state;
}

// Captures nest: each one restores the sink that was active before it.
std::vector<ITraceSink*>& CaptureStack() {
  static std::vector<ITraceSink*> stack;
  return stack;
}

}  // namespace

void cTracepoint::Call(std::string const& module, std::string const& level, unsigned char flags,
                       std::string const& message, std::string const& extra, char const* file,
                       long line) {
  (void)flags;
  TraceState& st = State();
  if (LevelNumber(level) > st.maxLevel) return;
  cTraceRecord rec;
  rec.module = module;
  rec.level = level;
  rec.message = extra.empty() ? message : message + " " + extra;
  rec.file = BaseName(file);
  rec.line = line;
  ITraceSink* sink = st.custom ? st.custom : st.builtin;
  sink->Write(rec);
}

bool cTracepoint::SelectSink(std::string const& name, std::string const& ident) {
  TraceState& st = State();
  ITraceSink* next = nullptr;
  if (name == "stderr") {
    next = &st.stderrSink;
  } else if (name == "syslog") {
    next = &st.syslogSink;
  } else if (name == "off") {
    next = &st.offSink;
  } else {
    return false;
  }
  if (st.builtin == &st.syslogSink && next != &st.syslogSink) st.syslogSink.Close();
  if (next == &st.syslogSink) st.syslogSink.Open(ident);
  if (next == &st.stderrSink) st.stderrSink.Open();
  st.builtin = next;
  return true;
}

void cTracepoint::SetSink(ITraceSink* sink) { State().custom = sink; }

bool cTracepoint::Enabled(char const* level) {
  TraceState const& st = State();
  if (st.custom == nullptr && st.builtin == &st.offSink) return false;
  return std::strtol(level, nullptr, 10) <= st.maxLevel;
}

void cTracepoint::SetMaxLevel(std::string const& level) { State().maxLevel = LevelNumber(level); }

cTraceCapture::cTraceCapture() {
  CaptureStack().push_back(State().custom);
  cTracepoint::SetSink(this);
}

cTraceCapture::~cTraceCapture() {
  auto& stack = CaptureStack();
  ITraceSink* prev = stack.empty() ? nullptr : stack.back();
  if (!stack.empty()) stack.pop_back();
  cTracepoint::SetSink(prev);
}

void cTraceCapture::Write(cTraceRecord const& rec) { m_records.push_back(rec); }

std::vector<std::string> cTraceCapture::Messages() const {
  std::vector<std::string> out;
  out.reserve(m_records.size());
  for (auto const& r : m_records) out.push_back(r.message);
  return out;
}

}  // namespace kest

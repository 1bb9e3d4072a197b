#include "kest/trace.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kest {
namespace {

long LevelNumber(std::string const& level) { return std::strtol(level.c_str(), nullptr, 10); }

char const* BaseName(char const* file) {
  if (file == nullptr) return "?";
  char const* slash = std::strrchr(file, '/');
  return slash ? slash + 1 : file;
}

// One line per trace: "module level file:line message". A multi-line message
// is folded so that each trace stays one line of the log.
class cStderrSink : public ITraceSink {
 public:
  void Write(cTraceRecord const& rec) override {
    std::string msg = rec.message;
    while (!msg.empty() && (msg.back() == '\n' || msg.back() == '\r')) msg.pop_back();
    std::replace(msg.begin(), msg.end(), '\n', ' ');
    std::string line = rec.module + " " + rec.level + " " + rec.file + ":" +
                       std::to_string(rec.line) + " " + msg + "\n";
    // One write per line keeps lines whole when several processes share stderr.
    std::size_t off = 0;
    while (off < line.size()) {
      ssize_t n = ::write(STDERR_FILENO, line.data() + off, line.size() - off);
      if (n <= 0) return;
      off += static_cast<std::size_t>(n);
    }
  }
};

class cSyslogSink : public ITraceSink {
 public:
  void Open(std::string const& ident) {
    m_ident = ident;  // openlog keeps the pointer
    openlog(m_ident.c_str(), LOG_PID, LOG_DAEMON);
    m_open = true;
  }
  void Close() {
    if (m_open) closelog();
    m_open = false;
  }
  void Write(cTraceRecord const& rec) override {
    long n = LevelNumber(rec.level);
    int prio = n <= 1 ? LOG_ERR : n == 2 ? LOG_WARNING : n <= 4 ? LOG_NOTICE : n == 5 ? LOG_INFO
                                                                                      : LOG_DEBUG;
    syslog(prio, "%s %s %s:%ld %s", rec.module.c_str(), rec.level.c_str(), rec.file.c_str(),
           rec.line, rec.message.c_str());
  }

 private:
  std::string m_ident;
  bool m_open = false;
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

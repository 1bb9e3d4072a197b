#include "kest/properties.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "kest/format.h"
#include "kest/options.h"
#include "kest/trace.h"

namespace kest {
namespace {

std::string Trim(std::string const& s) {
  std::size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return std::string();
  std::size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

// Splits "key=value"; false when there is no '=' or the key is empty.
bool SplitAssignment(std::string const& text, std::string& key, std::string& value) {
  std::size_t eq = text.find('=');
  if (eq == std::string::npos) return false;
  key = Trim(text.substr(0, eq));
  value = Trim(text.substr(eq + 1));
  return !key.empty();
}

std::string ProgramName(int argc, char** argv) {
  if (argc < 1 || argv == nullptr || argv[0] == nullptr) return "kest";
  char const* slash = std::strrchr(argv[0], '/');
  return slash ? slash + 1 : argv[0];
}

[[noreturn]] void ExitUsage(std::string const& prog, std::string const& what) {
  std::exit(kest::UsageError(prog.c_str(), what));
}

cPropertyList& Properties() {
  static cPropertyList props;
  return props;
}

}  // namespace

std::string cPropertyList::GetStringForKey(std::string const& key, std::string const& def) const {
  auto it = m_values.find(key);
  return it == m_values.end() ? def : it->second;
}

bool cPropertyList::Has(std::string const& key) const { return m_values.count(key) != 0; }

void cPropertyList::Set(std::string const& key, std::string const& value) { m_values[key] = value; }

bool cPropertyList::LoadFile(std::string const& path, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error =
        FormatString("%s: cannot open (errno:%d/%s)", path.c_str(), errno, std::strerror(errno));
    return false;
  }
  // Parse everything first so a bad line leaves the list untouched.
  std::vector<std::pair<std::string, std::string>> parsed;
  std::string line;
  long number = 0;
  while (std::getline(in, line)) {
    ++number;
    std::string t = Trim(line);
    if (t.empty() || t[0] == '#') continue;
    std::string key, value;
    if (!SplitAssignment(t, key, value)) {
      error =
          FormatString("%s:%ld: expected key=value, got \"%s\"", path.c_str(), number, t.c_str());
      return false;
    }
    parsed.emplace_back(key, value);
  }
  for (auto& kv : parsed) m_values[kv.first] = kv.second;
  return true;
}

cPropertyList& kestProperties() { return Properties(); }

bool kestInit(int argc, char** argv, std::string const& usage) {
  std::string const prog = ProgramName(argc, argv);
  enum { kProps = kLongOnly, kProp };
  cCommandLine const cl{
      prog.c_str(),
      "Usage: " + prog + " [--props FILE] [--prop KEY=VALUE]... [-h|--help] [-V|--version]\n" +
          "  --props FILE       read properties (key=value lines, # comments) from FILE\n"
          "  --prop KEY=VALUE   set one property; repeatable, wins over the file\n"
          "  -h, --help         show this text\n"
          "  -V, --version      show the version\n"
          "Framework properties: kest.trace=stderr|syslog|off, kest.trace.level=NNN\n" +
          (usage.empty() ? "" : usage + "\n"),
      {{"props", kProps, true}, {"prop", kProp, true}}};
  std::vector<std::string> files;
  std::vector<std::pair<std::string, std::string>> overrides;
  int operand = 0;
  int const status = ParseCommandLine(
      cl, argc, argv,
      [&](int key, std::string const& value, std::string& why) {
        if (key == kProps) {
          files.push_back(value);
          return true;
        }
        std::string k, v;
        if (!SplitAssignment(value, k, v)) {
          why = "expected KEY=VALUE";
          return false;
        }
        overrides.emplace_back(k, v);
        return true;
      },
      operand);
  if (status >= 0) {
    std::fflush(stdout);
    std::exit(status);
  }

  cPropertyList& props = Properties();
  props.Clear();
  for (auto const& f : files) {
    // "-FILE" is read when it exists, as systemd's EnvironmentFile=-FILE: the
    // service files name the administrator's file that way.
    bool const optional = f.size() > 1 && f[0] == '-';
    if (optional && ::access(f.c_str() + 1, F_OK) != 0 && errno == ENOENT) continue;
    std::string error;
    if (!props.LoadFile(optional ? f.substr(1) : f, error)) ExitUsage(prog, error);
  }
  for (auto const& kv : overrides) props.Set(kv.first, kv.second);

  std::string sink = props.GetStringForKey("kest.trace", "stderr");
  if (!cTracepoint::SelectSink(sink, prog)) {
    ExitUsage(prog,
              "unknown trace sink '" + sink + "' in property kest.trace (stderr, syslog, off)");
  }
  if (props.Has("kest.trace.level")) {
    std::string level = props.GetStringForKey("kest.trace.level", "");
    char* end = nullptr;
    std::strtol(level.c_str(), &end, 10);
    if (level.empty() || *end != '\0') {
      ExitUsage(prog, "property kest.trace.level must be a number, got '" + level + "'");
    }
    cTracepoint::SetMaxLevel(level);
  }
  return true;
}

void kestDeinit(bool full) {
  cTracepoint::SelectSink("stderr");
  cTracepoint::SetMaxLevel("999");
  if (full) Properties().Clear();
}

}  // namespace kest

#include "kest/properties.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "kest/format.h"
#include "kest/trace.h"

namespace kest {
namespace {

// Shown by --version; kept in step with the project version in CMakeLists.txt.
constexpr char kVersion[] = "0.1.0";
// Exit status for a command line or properties file that cannot be used.
constexpr int kUsageExit = 2;

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

[[noreturn]] void UsageError(std::string const& prog, std::string const& what) {
  std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", prog.c_str(), what.c_str(), prog.c_str());
  std::exit(kUsageExit);
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
    error = FormatString("%s: cannot open (errno:%d/%s)", path.c_str(), errno, std::strerror(errno));
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
      error = FormatString("%s:%ld: expected key=value, got \"%s\"", path.c_str(), number, t.c_str());
      return false;
    }
    parsed.emplace_back(key, value);
  }
  for (auto& kv : parsed) m_values[kv.first] = kv.second;
  return true;
}

cPropertyList& kestProperties() { return Properties(); }

bool kestInit(int argc, char** argv, std::string const& usage) {
  std::string prog = ProgramName(argc, argv);
  std::vector<std::string> files;
  std::vector<std::pair<std::string, std::string>> overrides;

  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i] ? argv[i] : "";
    std::string value;
    bool hasValue = false;
    std::string name = arg;
    std::size_t eq = arg.find('=');
    if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      hasValue = true;
    }
    if (name == "--help" && !hasValue) {
      std::printf("Usage: %s [--props FILE] [--prop KEY=VALUE]... [--help] [--version]\n"
                  "  --props FILE       read properties (key=value lines, # comments) from FILE\n"
                  "  --prop KEY=VALUE   set one property; repeatable, wins over the file\n"
                  "  --help             show this text\n"
                  "  --version          show the version\n"
                  "Framework properties: kest.trace=stderr|syslog|off, kest.trace.level=NNN\n",
                  prog.c_str());
      if (!usage.empty()) std::printf("%s\n", usage.c_str());
      std::fflush(stdout);
      std::exit(0);
    }
    if (name == "--version" && !hasValue) {
      std::printf("%s %s\n", prog.c_str(), kVersion);
      std::fflush(stdout);
      std::exit(0);
    }
    if (name == "--props" || name == "--prop") {
      if (!hasValue) {
        if (i + 1 >= argc || argv[i + 1] == nullptr) UsageError(prog, "option '" + name + "' needs a value");
        value = argv[++i];
      }
      if (name == "--props") {
        files.push_back(value);
      } else {
        std::string key, v;
        if (!SplitAssignment(value, key, v)) {
          UsageError(prog, "option '--prop' expects KEY=VALUE, got '" + value + "'");
        }
        overrides.emplace_back(key, v);
      }
      continue;
    }
    UsageError(prog, "unknown option '" + arg + "'");
  }

  cPropertyList& props = Properties();
  props.Clear();
  for (auto const& f : files) {
    // "-FILE" is read when it exists, as systemd's EnvironmentFile=-FILE: the
    // service files name the administrator's file that way.
    bool const optional = f.size() > 1 && f[0] == '-';
    if (optional && ::access(f.c_str() + 1, F_OK) != 0 && errno == ENOENT) continue;
    std::string error;
    if (!props.LoadFile(optional ? f.substr(1) : f, error)) UsageError(prog, error);
  }
  for (auto const& kv : overrides) props.Set(kv.first, kv.second);

  std::string sink = props.GetStringForKey("kest.trace", "stderr");
  if (!cTracepoint::SelectSink(sink, prog)) {
    UsageError(prog, "unknown trace sink '" + sink + "' in property kest.trace (stderr, syslog, off)");
  }
  if (props.Has("kest.trace.level")) {
    std::string level = props.GetStringForKey("kest.trace.level", "");
    char* end = nullptr;
    std::strtol(level.c_str(), &end, 10);
    if (level.empty() || *end != '\0') {
      UsageError(prog, "property kest.trace.level must be a number, got '" + level + "'");
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

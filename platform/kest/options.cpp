#include "kest/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstring>

#ifndef ROUTEMGR_VERSION
#define ROUTEMGR_VERSION "unknown"
#endif

namespace kest {
namespace {

constexpr int kHelp = 'h';
constexpr int kVersion = 'V';

// printf-style rather than strings pieced together: this runs in every
// program, halproxy's flash included.
int Refuse(char const* program, char const* format, char const* a, char const* b = "",
           char const* c = "") {
  std::fprintf(stderr, "%s: ", program);
  std::fprintf(stderr, format, a, b, c);
  std::fprintf(stderr, "\nTry '%s --help'.\n", program);
  return kExitUsage;
}

}  // namespace

int UsageError(char const* program, std::string const& what) {
  return Refuse(program, "%s", what.c_str());
}

int ParseCommandLine(cCommandLine const& cl, int argc, char** argv, OptionTaker take, void* context,
                     int& operand) {
  // '+': stop at the first operand (a command's own words may look like
  // options); ':': a missing value is told apart from an unknown option.
  std::string shorts = "+:hV";
  std::size_t const n = cl.options.size();
  std::vector<option> longs(n + 3);  // and help, version, the end
  for (std::size_t i = 0; i < n; ++i) {
    cOption const& o = cl.options[i];
    longs[i] = {o.name, o.hasValue ? required_argument : no_argument, nullptr, o.key};
    if (o.key < kLongOnly) {
      shorts += static_cast<char>(o.key);
      if (o.hasValue) shorts += ':';
    }
  }
  longs[n] = {"help", no_argument, nullptr, kHelp};
  longs[n + 1] = {"version", no_argument, nullptr, kVersion};

  opterr = 0;
  optind = 0;  // a fresh scan, also when called again in one process
  for (;;) {
    int const at = optind == 0 ? 1 : optind;
    int const key = getopt_long(argc, argv, shorts.c_str(), longs.data(), nullptr);
    if (key == -1) break;
    // The option as typed: "--name" (without its "=value") or "-x".
    bool const isLong = std::strncmp(argv[at], "--", 2) == 0;
    std::string const typed =
        isLong ? std::string(argv[at], std::strcspn(argv[at], "="))
               : std::string{'-', static_cast<char>(key == '?' || key == ':' ? optopt : key)};
    // getopt names the option in optopt when it knows it: then a "--flag=x".
    if (key == '?')
      return Refuse(cl.program,
                    isLong && optopt != 0 ? "option '%s' takes no value" : "unknown option '%s'",
                    typed.c_str());
    if (key == ':') return Refuse(cl.program, "option '%s' needs a value", typed.c_str());
    if (key == kHelp) {
      std::fputs(cl.usage.c_str(), stdout);
      return 0;
    }
    if (key == kVersion) {
      std::printf("%s %s\n", cl.program, ROUTEMGR_VERSION);
      return 0;
    }
    char const* const value = optarg ? optarg : "";
    std::string why;
    if (!take(context, key, value, why))
      return Refuse(cl.program, "bad value '%s' for %s: %s", value, typed.c_str(), why.c_str());
  }
  operand = optind;
  if (!cl.operands && optind < argc)
    return Refuse(cl.program, "unexpected argument '%s'", argv[optind]);
  return -1;
}

}  // namespace kest

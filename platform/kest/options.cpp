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

cOption const* Find(std::vector<cOption> const& options, int key) {
  for (auto const& o : options)
    if (o.key == key) return &o;
  return nullptr;
}

// How a person typed the option getopt stopped at: "--name" or "-x".
std::string Typed(std::vector<cOption> const& options, int key, char const* arg) {
  if (arg != nullptr && std::strncmp(arg, "--", 2) == 0)
    return std::string(arg, std::strcspn(arg, "="));
  if (key > 0 && key < kLongOnly) return std::string("-") + static_cast<char>(key);
  cOption const* o = Find(options, key);
  return o ? std::string("--") + o->name : std::string(arg ? arg : "?");
}

}  // namespace

int UsageError(char const* program, std::string const& what) {
  std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", program, what.c_str(), program);
  return kExitUsage;
}

int ParseCommandLine(cCommandLine const& cl, int argc, char** argv, OptionTaker take,
                     void* context, int& operand) {
  std::vector<cOption> options = cl.options;
  options.push_back({"help", kHelp, false});
  options.push_back({"version", kVersion, false});
  // '+': stop at the first operand (a command's own words may look like
  // options); ':': a missing value is told apart from an unknown option.
  std::string shorts = "+:";
  std::vector<option> longs;
  for (auto const& o : options) {
    longs.push_back({o.name, o.hasValue ? required_argument : no_argument, nullptr, o.key});
    if (o.key < kLongOnly) {
      shorts += static_cast<char>(o.key);
      if (o.hasValue) shorts += ':';
    }
  }
  longs.push_back({nullptr, 0, nullptr, 0});

  opterr = 0;
  optind = 0;  // a fresh scan, also when called again in one process
  for (;;) {
    int const previous = optind == 0 ? 1 : optind;
    int const key = getopt_long(argc, argv, shorts.c_str(), longs.data(), nullptr);
    if (key == -1) break;
    char const* typed = argv[previous];
    if (key == '?') {
      // An option we do not have, or a value given to one that takes none.
      cOption const* known = optopt != 0 ? Find(options, optopt) : nullptr;
      if (known != nullptr && !known->hasValue && typed && std::strncmp(typed, "--", 2) == 0)
        return UsageError(cl.program, "option '--" + std::string(known->name) + "' takes no value");
      std::string const what = optopt > 0 && optopt < kLongOnly && !(typed && typed[1] == '-')
                                   ? std::string("-") + static_cast<char>(optopt)
                                   : std::string(typed, std::strcspn(typed, "="));
      return UsageError(cl.program, "unknown option '" + what + "'");
    }
    if (key == ':') {
      return UsageError(cl.program, "option '" + Typed(options, optopt, typed) + "' needs a value");
    }
    if (key == kHelp) {
      std::fputs(cl.usage.c_str(), stdout);
      return 0;
    }
    if (key == kVersion) {
      std::printf("%s %s\n", cl.program, ROUTEMGR_VERSION);
      return 0;
    }
    std::string const value = optarg ? optarg : "";
    std::string why;
    if (!take(context, key, value, why)) {
      return UsageError(cl.program, "bad value '" + value + "' for " + Typed(options, key, typed) +
                                        ": " + why);
    }
  }
  operand = optind;
  if (!cl.operands && optind < argc)
    return UsageError(cl.program, "unexpected argument '" + std::string(argv[optind]) + "'");
  return -1;
}

}  // namespace kest

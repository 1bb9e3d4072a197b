// One command-line grammar for every program of the system, on getopt_long:
// "-h/--help" and "-V/--version" everywhere, "--opt VALUE" and "--opt=VALUE",
// the same messages, and exit status 2 for a command line that cannot be used.
#pragma once

#include <string>
#include <type_traits>
#include <vector>

namespace kest {

constexpr int kExitUsage = 2;

struct cOption {
  char const* name;  // long name, without the dashes
  int key;           // a short option's letter, or kLongOnly + n
  bool hasValue;
};
constexpr int kLongOnly = 256;

struct cCommandLine {
  char const* program;  // in messages: "halproxy"
  std::string usage;    // --help prints it as it is
  std::vector<cOption> options;
  bool operands = false;  // words may follow the options (a command)
};

// Takes one option: key and its value ("" for one without); false with the
// reason the value is bad.
using OptionTaker = bool (*)(void* context, int key, std::string const& value, std::string& why);

// Walks argv[1..]. Returns -1 to go on (the operands are argv[operand..]);
// otherwise the exit status, after printing: 0 for help or version, 2 for
// an unknown option, a missing or refused value, or an unexpected operand.
int ParseCommandLine(cCommandLine const& cl, int argc, char** argv, OptionTaker take, void* context,
                     int& operand);

template <typename F>
int ParseCommandLine(cCommandLine const& cl, int argc, char** argv, F&& take, int& operand) {
  using Fn = std::remove_reference_t<F>;
  return ParseCommandLine(
      cl, argc, argv,
      [](void* c, int key, std::string const& value, std::string& why) {
        return (*static_cast<Fn*>(c))(key, value, why);
      },
      &take, operand);
}

// "PROG: what" and the hint to --help on standard error; kExitUsage.
int UsageError(char const* program, std::string const& what);

}  // namespace kest

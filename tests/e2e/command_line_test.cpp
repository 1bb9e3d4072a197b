// One command-line grammar for all five programs: each binary run with a
// table of arguments, its exit status and what it says compared. The
// grammar's own refusals are shared code, each shown once.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <set>
#include <tuple>

#include "support/stack.h"

namespace testsupport {
namespace {

TEST(E2eCommandLine, SameGrammarMessagesAndExitCodesInEveryProgram) {
  cTempDir tmp("rm-cmdline");
  std::string const badProps = tmp.File("bad.conf"), version = std::string(" ") + ROUTEMGR_VERSION;
  std::ofstream(badProps) << "good=1\nbad line\n";
  // What a program says: with -h or -V on stdout (status 0); else after "PROG: " on stderr (2).
  std::tuple<std::string, std::vector<std::string>, std::string> const cases[] = {
      {ROUTEMGR_BIN, {"-h"}, "--props FILE"},
      {ROUTEMGR_BIN, {"--version"}, "routemgr" + version + "\n"},
      {ROUTEMGR_BIN, {"--prop", "novalue"}, "bad value 'novalue' for --prop: expected KEY=VALUE"},
      {ROUTEMGR_BIN, {"--prop=kest.trace=printer"}, "unknown trace sink 'printer'"},
      {ROUTEMGR_BIN, {"--props", badProps}, badProps + ":2: expected key=value"},
      {ROUTEMGR_BIN, {"--props=-" + badProps}, badProps + ":2: expected key=value"},  // optional
      {ROUTEMGR_BIN, {"--props"}, "option '--props' needs a value"},
      {ROUTEMGR_BIN, {"stray"}, "unexpected argument 'stray'"},
      {HALPROXY_BIN, {"-V"}, "halproxy" + version + "\n"},
      {HALPROXY_BIN, {"--backend", "kernel"}, "bad value 'kernel' for --backend: expected memory"},
      {HALPROXY_BIN, {"--backend=netlink", "--interfaces=eth0"}, "--interfaces is only for"},
      {HALPROXY_BIN, {"--allow-uid=0"}, "need --listen unix:/path"},  // the default is TCP
      {HALPROXY_BIN, {"--enable-test-ops=yes"}, "option '--enable-test-ops' takes no value"},
      {DATAMGR_BIN, {"--allow-gid=no-such-group-here"}, "unknown group \"no-such-group-here\""},
      {DATACTL_BIN, {"--server=nowhere", "list"}, "bad value 'nowhere' for --server"},
      {DATACTL_BIN, {}, "no command given"},
      {ROUTECTL_BIN, {"--timeout", "0", "route", "del", "x"}, "bad value '0' for --timeout: milli"},
      {ROUTECTL_BIN, {"--nope"}, "unknown option '--nope'"},
  };
  std::set<std::string> const kAsked{"-h", "--help", "-V", "--version"};
  for (auto const& [program, args, said] : cases) {
    std::string const name = program.substr(program.rfind('/') + 1);
    SCOPED_TRACE(name + " " + testing::PrintToString(args));
    std::string cmd = "timeout -s KILL 10 " + program;
    for (auto const& a : args) cmd += " '" + a + "'";
    int const status =
        std::system((cmd + " </dev/null >" + tmp.File("out") + " 2>" + tmp.File("err")).c_str());
    std::string const out = ReadFile(tmp.File("out")), err = ReadFile(tmp.File("err"));
    bool const asked = args.size() == 1 && kAsked.count(args[0]) > 0;
    EXPECT_EQ(WEXITSTATUS(status), asked ? 0 : 2) << err;
    EXPECT_NE((asked ? out : err).find(said), std::string::npos) << out << err;
    EXPECT_EQ(asked ? err : out, "");
    std::string const hint = "\nTry '" + name + " --help'.\n";
    EXPECT_TRUE(asked ||
                (err.rfind(name + ": ", 0) == 0 && err.find(hint) == err.size() - hint.size()))
        << err;
  }
}

}  // namespace
}  // namespace testsupport

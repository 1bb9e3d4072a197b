// One command-line grammar for all five programs: each binary run with a
// table of arguments, its exit status and what it says compared. The
// grammar's own refusals are shared code, each shown once.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <set>

#include "support/stack.h"

namespace testsupport {
namespace {

TEST(E2eCommandLine, SameGrammarMessagesAndExitCodesInEveryProgram) {
  cTempDir tmp("rm-cmdline");
  std::string const badProps = tmp.File("bad.conf"), version = std::string(" ") + ROUTEMGR_VERSION;
  std::ofstream(badProps) << "good=1\nbad line\n";
  struct Case {
    char const* program;
    std::vector<std::string> args;
    std::string said;  // with -h or -V in stdout (status 0); else after "PROG: " on stderr (2)
  } const cases[] = {
      {ROUTEMGR_BIN, {"-h"}, "--props FILE"},
      {ROUTEMGR_BIN, {"--version"}, "routemgr" + version + "\n"},
      {ROUTEMGR_BIN, {"--prop", "novalue"}, "bad value 'novalue' for --prop: expected KEY=VALUE"},
      {ROUTEMGR_BIN, {"--prop=kest.trace=printer"}, "unknown trace sink 'printer'"},
      {ROUTEMGR_BIN, {"--props", badProps}, badProps + ":2: expected key=value"},
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
      // A leading zero is refused as inet_pton refuses it, not read as 10.
      {ROUTECTL_BIN, {"route", "set", "x", "010.0.0.0/8", "via", "1.2.3.4"}, "bad prefix '010."},
  };
  std::set<std::string> const kAsked{"-h", "--help", "-V", "--version"};
  for (auto const& c : cases) {
    std::string const name = std::string(c.program).substr(std::string(c.program).rfind('/') + 1);
    SCOPED_TRACE(name + " " + testing::PrintToString(c.args));
    std::string cmd = "timeout -s KILL 10 " + std::string(c.program);
    for (auto const& a : c.args) cmd += " '" + a + "'";
    int const status =
        std::system((cmd + " </dev/null >" + tmp.File("out") + " 2>" + tmp.File("err")).c_str());
    std::string const out = ReadFile(tmp.File("out")), err = ReadFile(tmp.File("err"));
    bool const asked = c.args.size() == 1 && kAsked.count(c.args[0]) > 0;
    EXPECT_EQ(WEXITSTATUS(status), asked ? 0 : 2) << err;
    EXPECT_NE((asked ? out : err).find(c.said), std::string::npos) << out << err;
    EXPECT_EQ(asked ? err : out, "");
    std::string const hint = "\nTry '" + name + " --help'.\n";
    EXPECT_TRUE(asked ||
                (err.rfind(name + ": ", 0) == 0 && err.find(hint) == err.size() - hint.size()))
        << err;
  }
}

}  // namespace
}  // namespace testsupport

// One command-line grammar for all five programs: each binary run with a
// table of arguments, its exit status and what it says compared.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>

#include "support/process.h"

namespace e2e {
namespace {

struct cRun {
  int status;
  std::string out, err;
};

cRun RunProgram(std::string const& dir, std::string const& program,
                std::vector<std::string> const& args) {
  std::string cmd = "timeout -s KILL 10 " + program;
  for (auto const& a : args) cmd += " '" + a + "'";
  cmd += " </dev/null >" + dir + "/out 2>" + dir + "/err";
  int const status = std::system(cmd.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testsupport::ReadFile(dir + "/out"),
          testsupport::ReadFile(dir + "/err")};
}

TEST(E2eCommandLine, SameGrammarMessagesAndExitCodesInEveryProgram) {
  testsupport::cTempDir tmp("rm-cmdline");
  std::string const badProps = tmp.Path() + "/bad.conf";
  std::ofstream(badProps) << "good=1\nbad line\n";
  struct Case {
    char const* program;
    std::vector<std::string> args;
    int status;
    std::string said;  // status 0: in stdout; else the message after "PROG: " on stderr
  } const cases[] = {
      {ROUTEMGR_BIN, {"-h"}, 0, "--props FILE"},
      {ROUTEMGR_BIN, {"--version"}, 0, std::string("routemgr ") + ROUTEMGR_VERSION + "\n"},
      {ROUTEMGR_BIN,
       {"--prop", "novalue"},
       2,
       "bad value 'novalue' for --prop: expected KEY=VALUE"},
      {ROUTEMGR_BIN, {"--prop=kest.trace=printer"}, 2, "unknown trace sink 'printer'"},
      {ROUTEMGR_BIN, {"--props", badProps}, 2, badProps + ":2: expected key=value"},
      {ROUTEMGR_BIN, {"--bogus=1"}, 2, "unknown option '--bogus'"},
      {ROUTEMGR_BIN, {"--props"}, 2, "option '--props' needs a value"},
      {ROUTEMGR_BIN, {"stray"}, 2, "unexpected argument 'stray'"},

      {HALPROXY_BIN, {"--help"}, 0, "--unavailable=skip|unreachable"},
      {HALPROXY_BIN, {"-V"}, 0, std::string("halproxy ") + ROUTEMGR_VERSION + "\n"},
      {HALPROXY_BIN,
       {"--backend", "kernel"},
       2,
       "bad value 'kernel' for --backend: expected memory or netlink"},
      {HALPROXY_BIN,
       {"--listen=unix:/h", "--socket-mode=0800"},
       2,
       "bad value '0800' for --socket-mode"},
      {HALPROXY_BIN, {"--backend=netlink", "--interfaces=eth0"}, 2, "--interfaces is only for"},
      {HALPROXY_BIN, {"--allow-uid=0"}, 2, "need --listen unix:/path"},  // the default is TCP
      {HALPROXY_BIN, {"--enable-test-ops=yes"}, 2, "option '--enable-test-ops' takes no value"},
      {HALPROXY_BIN, {"-x"}, 2, "unknown option '-x'"},
      {HALPROXY_BIN, {"--sweep-after"}, 2, "option '--sweep-after' needs a value"},
      {HALPROXY_BIN, {"eth0"}, 2, "unexpected argument 'eth0'"},

      {DATAMGR_BIN, {"-h"}, 0, "--admin-gid=GROUP"},
      {DATAMGR_BIN, {"--version"}, 0, std::string("datamgr ") + ROUTEMGR_VERSION + "\n"},
      {DATAMGR_BIN, {"--send-limit", "1024"}, 2, "bad value '1024' for --send-limit"},
      {DATAMGR_BIN, {"--max-connections=0"}, 2, "bad value '0' for --max-connections"},
      {DATAMGR_BIN, {"--allow-gid=no-such-group-here"}, 2, "unknown group \"no-such-group-here\""},
      {DATAMGR_BIN, {"--admin-gid", "0"}, 2, "need --listen unix:/path"},
      {DATAMGR_BIN, {"--frobnicate"}, 2, "unknown option '--frobnicate'"},
      {DATAMGR_BIN, {"--config"}, 2, "option '--config' needs a value"},

      {DATACTL_BIN, {"--help"}, 0, "set-wan-setup NAME"},
      {DATACTL_BIN, {"-V"}, 0, std::string("datactl ") + ROUTEMGR_VERSION + "\n"},
      {DATACTL_BIN, {"--server", "nowhere", "list"}, 2, "bad value 'nowhere' for --server"},
      {DATACTL_BIN, {"--server=nowhere", "list"}, 2, "bad value 'nowhere' for --server"},
      {DATACTL_BIN, {"--frob", "list"}, 2, "unknown option '--frob'"},
      {DATACTL_BIN, {"-s"}, 2, "option '-s' needs a value"},
      {DATACTL_BIN, {}, 2, "no command given"},

      {ROUTECTL_BIN, {"-h"}, 0, "--hal-table"},
      {ROUTECTL_BIN, {"--version"}, 0, std::string("routectl ") + ROUTEMGR_VERSION + "\n"},
      {ROUTECTL_BIN,
       {"--timeout", "0", "route", "del", "x"},
       2,
       "bad value '0' for --timeout: milliseconds (1..600000)"},
      {ROUTECTL_BIN, {"--wait=x", "route", "del", "x"}, 2, "bad value 'x' for --wait"},
      {ROUTECTL_BIN, {"--nope"}, 2, "unknown option '--nope'"},
      {ROUTECTL_BIN, {"-b"}, 2, "option '-b' needs a value"},
      {ROUTECTL_BIN, {"--hal-table", "route"}, 2, "--hal-table takes no command"},
      // A leading zero is refused as inet_pton refuses it, not read as 10.
      {ROUTECTL_BIN,
       {"route", "set", "x", "010.0.0.0/8", "via", "1.2.3.4"},
       2,
       "bad prefix '010.0.0.0/8'"},
  };
  for (auto const& c : cases) {
    std::string const name = std::string(c.program).substr(std::string(c.program).rfind('/') + 1);
    SCOPED_TRACE(name + " " + testing::PrintToString(c.args));
    cRun const run = RunProgram(tmp.Path(), c.program, c.args);
    EXPECT_EQ(run.status, c.status) << run.err;
    if (c.status == 0) {
      EXPECT_NE(run.out.find(c.said), std::string::npos) << run.out;
      EXPECT_EQ(run.err, "");
      continue;
    }
    std::string const prefix = name + ": ", hint = "\nTry '" + name + " --help'.\n";
    EXPECT_EQ(run.err.compare(0, prefix.size(), prefix), 0) << run.err;
    EXPECT_NE(run.err.find(c.said), std::string::npos) << run.err;
    EXPECT_TRUE(run.err.size() > hint.size() &&
                run.err.compare(run.err.size() - hint.size(), hint.size(), hint) == 0)
        << run.err;
    EXPECT_EQ(run.out, "");
  }
}

}  // namespace
}  // namespace e2e

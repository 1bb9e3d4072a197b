// The whole system on loopback for one test, or the part of it a test needs:
// halproxy (memory backend by default), datamgr with the shipped example
// configuration and routemgr, each a real process on a port of its own with
// its output in a log file; plus the command-line tools.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/process.h"

namespace testsupport {

// The route the shipped example configures in setup "dsl" (own gateway).
constexpr char kMgmtRoute[] = "192.168.50.0/24 via 192.168.1.254 metric 0";

struct cToolRun {
  int status;  // the exit code; 137 when it was killed after 10 s
  std::string out, err;
};

class cStack {
 public:
  ~cStack();  // stops everything; prints the tail of every log when the test has failed

  // Each true once the daemon listens; routemgr listens once both peers are in.
  bool Start() { return StartHal() && StartDataMgr() && StartRouteMgr(); }
  bool StartHal();
  bool StartDataMgr();
  bool StartRouteMgr(std::vector<std::string> env = {});

  testsupport::cTempDir tmp{"rm-e2e"};  // logs and files, gone with the stack
  // Port 0 until the daemon has told which one it took (a restart takes it again).
  std::string dir = tmp.Path(), halSap = "127.0.0.1:0", dataSap = halSap, routeSap = halSap;
  // Before the daemon's command line (e.g. "ip netns exec NS"), after it.
  std::vector<std::string> halPrefix, halArgs{"--backend=memory"}, dataArgs, routeArgs;
  std::string dataConfig = EXAMPLE_CONFIG;
  std::unique_ptr<cProcess> hal, data, route;
  std::string toolPrefix;  // before every tool's command line, e.g. "setpriv ... "

  // The HAL proxy's table, one line a route; a failure gives one "error:" line.
  std::vector<std::string> HalTable() const;
  // Waits until the table holds every one of want and none of unwanted.
  ::testing::AssertionResult WaitTable(std::vector<std::string> const& want,
                                       std::vector<std::string> const& unwanted = {},
                                       int timeoutMs = 5000) const;
  // The tools against this stack, run to their end.
  cToolRun Routectl(std::vector<std::string> const& args, std::string const& input = "") {
    return Run(ROUTECTL_BIN, routeSap, args, input);
  }
  cToolRun Datactl(std::vector<std::string> const& args) { return Run(DATACTL_BIN, dataSap, args); }
  // A routectl running batch in the background, holding its routes (or,
  // without hold, ending after the batch); its output goes to a log.
  std::unique_ptr<cProcess> SpawnRoutectl(std::string const& batch, bool hold = true);

 private:
  std::string NextFile(std::string const& name, bool log = true);
  cToolRun Run(std::string const& program, std::string const& sap,
               std::vector<std::string> const& args, std::string const& input = "");

  std::vector<std::string> m_logs;
  int m_files = 0;
};

}  // namespace testsupport

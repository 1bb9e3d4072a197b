#include "support/stack.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "routectl/hal_table.h"

namespace testsupport {
namespace {

// Starts a daemon into slot; true once it says where it listens (sap).
bool Launch(std::unique_ptr<cProcess>& slot, std::string const& logPath,
            std::vector<std::string> argv, std::vector<std::string> const& more, std::string& sap,
            std::vector<std::string> env = {}) {
  argv.insert(argv.end(), more.begin(), more.end());
  // "JOURNAL_STREAM=" asks for what systemd puts there when standard error
  // is the journal: that stream's device and inode, here the log file's.
  struct stat st {};
  for (auto& e : env)
    if (e == "JOURNAL_STREAM=" && (std::ofstream(logPath), stat(logPath.c_str(), &st) == 0))
      e += std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
  slot = std::make_unique<cProcess>(std::move(argv), logPath, std::move(env));
  if (!slot->WaitForLog("listening on ")) return false;
  std::string const log = slot->Log();
  std::size_t const at = log.find("listening on ") + 13;
  sap = log.substr(at, log.find_first_of(" ,\n", at) - at);
  return true;
}

}  // namespace

cStack::~cStack() {
  // Route clients first, the daemon next, its peers last: the order of a
  // clean shutdown, so logs end the way they would in the field.
  for (auto* p : {&route, &data, &hal})
    if (*p) (*p)->Stop();
  for (auto const& path : ::testing::Test::HasFailure() ? m_logs : std::vector<std::string>{})
    std::system(("tail -v -n 40 '" + path + "' >&2").c_str());
}

// A fresh name in the stack's directory, numbered in order of use.
std::string cStack::NextFile(std::string const& name, bool log) {
  std::string const path = dir + "/" + std::to_string(++m_files) + "-" + name;
  if (log) m_logs.push_back(path);
  return path;
}

bool cStack::StartHal() {
  std::vector<std::string> argv = halPrefix;
  argv.insert(argv.end(), {HALPROXY_BIN, "--listen=" + halSap, "--log-level=debug"});
  return Launch(hal, NextFile("halproxy.log"), argv, halArgs, halSap);
}

bool cStack::StartDataMgr() {
  return Launch(data, NextFile("datamgr.log"),
                {DATAMGR_BIN, "--config", dataConfig, "--listen", dataSap}, dataArgs, dataSap);
}

bool cStack::StartRouteMgr(std::vector<std::string> env) {
  return Launch(route, NextFile("routemgr.log"),
                {ROUTEMGR_BIN, "--prop", "system.customHalProxSap=" + halSap, "--prop",
                 "system.customDataMgrSap=" + dataSap, "--prop", "system.routeMgrSap=" + routeSap},
                routeArgs, routeSap, std::move(env));
}

std::vector<std::string> cStack::HalTable() const {
  std::vector<std::string> lines;
  std::string error;
  if (!routectl::FetchHalTable(halSap, 2000, lines, error)) return {"error: " + error};
  return lines;
}

::testing::AssertionResult cStack::WaitTable(std::vector<std::string> const& want,
                                             std::vector<std::string> const& unwanted,
                                             int timeoutMs) const {
  std::vector<std::string> table;
  auto in = [&](std::string const& l) { return std::count(table.begin(), table.end(), l) > 0; };
  auto holds = [&] {
    table = HalTable();
    return std::all_of(want.begin(), want.end(), in) &&
           std::none_of(unwanted.begin(), unwanted.end(), in);
  };
  if (PollUntil(holds, timeoutMs)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "the HAL proxy's table: " << testing::PrintToString(table);
}

// Bounded by timeout(1), so a hung tool fails the test instead of holding it.
cToolRun cStack::Run(std::string const& program, std::string const& sap,
                     std::vector<std::string> const& args, std::string const& input) {
  NoteMachine(program);
  std::string const base = NextFile(program.substr(program.rfind('/') + 1), false);
  std::string cmd = "timeout -s KILL 10 " + toolPrefix + program + " --server " + sap;
  for (auto const& a : args) cmd += " '" + a + "'";
  std::ofstream(base + ".in") << input;
  int const status =
      std::system((cmd + " <" + base + ".in >" + base + ".out 2>" + base + ".err").c_str());
  m_logs.push_back(base + ".err");
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(base + ".out"),
          ReadFile(base + ".err")};
}

std::unique_ptr<cProcess> cStack::SpawnRoutectl(std::string const& batch, bool hold) {
  std::string const file = NextFile("batch", false);
  std::ofstream(file) << batch;
  std::vector<std::string> argv{ROUTECTL_BIN, "--server", routeSap, "-b", file};
  if (hold) argv.insert(argv.begin() + 3, "--hold");
  return std::make_unique<cProcess>(argv, NextFile("routectl.log"));
}

}  // namespace testsupport

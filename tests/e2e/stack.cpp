#include "e2e/stack.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "routectl/hal_table.h"

namespace e2e {
namespace {

// Every test starts the programs: each skips itself where it cannot.
class cSkipWhenProgramsCannotStart : public ::testing::Environment {
  void SetUp() override {
    if (std::string const why = testsupport::CannotStartPrograms(); !why.empty())
      GTEST_SKIP() << why;
  }
};
[[maybe_unused]] ::testing::Environment* const g_skipWhenProgramsCannotStart =
    ::testing::AddGlobalTestEnvironment(new cSkipWhenProgramsCannotStart);

}  // namespace

cStack::cStack(cOptions options) : m_options(std::move(options)) {
  if (!m_options.halPrefix.empty()) halSap = "unix:" + dir + "/hal.sock";
}

cStack::~cStack() {
  // Route clients first, the daemon next, its peers last: the order of a
  // clean shutdown, so logs end the way they would in the field.
  for (auto* p : {&route, &data, &hal})
    if (*p) (*p)->Stop();
  // The end of each log, enough to see what went wrong without drowning the report.
  for (auto const& path : ::testing::Test::HasFailure() ? m_logs : std::vector<std::string>{})
    std::system(("tail -v -n 40 '" + path + "' >&2").c_str());
}

// A fresh name in the stack's directory, numbered in order of use; the
// logs among them are printed when the test fails.
std::string cStack::NextFile(std::string const& name, bool log) {
  std::string const path = dir + "/" + std::to_string(++m_files) + "-" + name;
  if (log) m_logs.push_back(path);
  return path;
}

std::string cStack::Write(std::string const& name, std::string const& text) const {
  std::ofstream(dir + "/" + name) << text;
  return dir + "/" + name;
}

bool cStack::Launch(std::unique_ptr<cProcess>& slot, std::string const& name,
                    std::vector<std::string> argv, std::string& sap, std::vector<std::string> env) {
  std::string const logPath = NextFile(name + ".log");
  // "JOURNAL_STREAM=" asks for what systemd puts there when standard error
  // is the journal: that stream's device and inode, here the log file's.
  for (auto& e : env) {
    struct stat st {};
    if (e == "JOURNAL_STREAM=" && (std::ofstream(logPath), stat(logPath.c_str(), &st) == 0))
      e += std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
  }
  slot = std::make_unique<cProcess>(std::move(argv), logPath, std::move(env));
  if (!slot->WaitForLog("listening on ")) return false;
  std::string const log = slot->Log();
  std::size_t const at = log.find("listening on ") + 13;
  sap = log.substr(at, log.find_first_of(" ,\n", at) - at);
  return true;
}

bool cStack::StartHal() {
  std::vector<std::string> argv = m_options.halPrefix;
  argv.insert(argv.end(), {HALPROXY_BIN, "--listen=" + halSap, "--log-level=debug"});
  argv.insert(argv.end(), m_options.halArgs.begin(), m_options.halArgs.end());
  return Launch(hal, "halproxy", argv, halSap);
}

bool cStack::StartDataMgr() {
  std::vector<std::string> argv{DATAMGR_BIN, "--config", EXAMPLE_CONFIG, "--listen", dataSap};
  argv.insert(argv.end(), m_options.dataArgs.begin(), m_options.dataArgs.end());
  return Launch(data, "datamgr", argv, dataSap);
}

// The route service listens only once both peers are connected.
bool cStack::StartRouteMgr(std::vector<std::string> env) {
  std::vector<std::string> argv{ROUTEMGR_BIN,
                                "--prop",
                                "system.customHalProxSap=" + halSap,
                                "--prop",
                                "system.customDataMgrSap=" + dataSap,
                                "--prop",
                                "system.routeMgrSap=" + routeSap};
  argv.insert(argv.end(), m_options.routeArgs.begin(), m_options.routeArgs.end());
  return Launch(route, "routemgr", argv, routeSap, std::move(env));
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
         << "the HAL proxy's table: " << ::testing::PrintToString(table);
}

// Bounded by timeout(1), so a hung tool fails the test instead of holding it.
cToolRun cStack::Run(std::string const& program, std::string const& sap,
                     std::vector<std::string> const& args, std::string const& input) {
  testsupport::NoteMachine(program);
  std::string const base = NextFile(program.substr(program.rfind('/') + 1), false);
  std::string cmd = "timeout -s KILL 10 " + toolPrefix + program + " --server " + sap;
  for (auto const& a : args) cmd += " '" + a + "'";
  std::ofstream(base + ".in") << input;
  cmd += " <" + base + ".in >" + base + ".out 2>" + base + ".err";
  int const status = std::system(cmd.c_str());
  m_logs.push_back(base + ".err");
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(base + ".out"),
          ReadFile(base + ".err")};
}

std::unique_ptr<cProcess> cStack::SpawnRoutectl(std::vector<std::string> const& args) {
  std::vector<std::string> argv{ROUTECTL_BIN, "--server", routeSap};
  argv.insert(argv.end(), args.begin(), args.end());
  return std::make_unique<cProcess>(argv, NextFile("routectl.log"));
}

}  // namespace e2e

#include "e2e/stack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "routectl/hal_table.h"

namespace e2e {

namespace {

std::string Loopback(std::uint16_t port) { return "127.0.0.1:" + std::to_string(port); }

bool Contains(std::vector<std::string> const& lines, std::string const& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Enough of each log to see what went wrong without drowning the report.
constexpr std::size_t kTailLines = 40;

// Under user-mode emulation of the target (cross builds) a test program
// cannot start the other target programs: every test skips itself.
class cSkipWhenEmulated : public ::testing::Environment {
  void SetUp() override {
    if (std::getenv("ROUTEMGR_EMULATED") != nullptr)
      GTEST_SKIP() << "end-to-end tests start other programs: not under emulation";
  }
};
[[maybe_unused]] ::testing::Environment* const g_skipWhenEmulated =
    ::testing::AddGlobalTestEnvironment(new cSkipWhenEmulated);

}  // namespace

cStack::cStack() : cStack(cOptions{}) {}

cStack::cStack(cOptions options) : m_options(std::move(options)) {
  std::vector<std::uint16_t> ports = FreePorts(3);
  if (ports.size() != 3) ADD_FAILURE() << "no free loopback ports";
  ports.resize(3, 0);
  m_halSap = m_options.halOnUnixSocket ? "unix:" + Dir() + "/hal.sock" : Loopback(ports[0]);
  m_dataSap = Loopback(ports[1]);
  m_routeSap = Loopback(ports[2]);
}

cStack::~cStack() {
  // Route clients first, the daemon next, its peers last: the order of a
  // clean shutdown, so logs end the way they would in the field.
  if (route) route->Stop();
  if (data) data->Stop();
  if (hal) hal->Stop();
  if (!::testing::Test::HasFailure()) return;
  for (auto const& path : m_logs) {
    std::vector<std::string> lines = SplitLines(ReadFile(path));
    std::size_t from = lines.size() > kTailLines ? lines.size() - kTailLines : 0;
    std::fprintf(stderr, "----- %s (last %zu lines) -----\n", path.c_str(), lines.size() - from);
    for (std::size_t i = from; i < lines.size(); ++i)
      std::fprintf(stderr, "%s\n", lines[i].c_str());
  }
}

std::string cStack::NextLog(std::string const& name) {
  std::string path = Dir() + "/" + std::to_string(++m_runs) + "-" + name + ".log";
  m_logs.push_back(path);
  return path;
}

bool cStack::StartHal() {
  std::vector<std::string> argv = m_options.halPrefix;
  argv.push_back(HALPROXY_BIN);
  argv.push_back("--listen=" + m_halSap);
  argv.push_back("--log-level=debug");
  argv.insert(argv.end(), m_options.halArgs.begin(), m_options.halArgs.end());
  hal = std::make_unique<cProcess>("halproxy", argv, NextLog("halproxy"));
  return hal->Start() && PollUntil([this] { return Accepts(m_halSap); }, kStartTimeoutMs);
}

bool cStack::StartDataMgr() {
  data = std::make_unique<cProcess>(
      "datamgr",
      std::vector<std::string>{DATAMGR_BIN, "--config", EXAMPLE_CONFIG, "--listen", m_dataSap},
      NextLog("datamgr"));
  return data->Start() && PollUntil([this] { return Accepts(m_dataSap); }, kStartTimeoutMs);
}

bool cStack::StartRouteMgr() {
  route = std::make_unique<cProcess>(
      "routemgr",
      std::vector<std::string>{ROUTEMGR_BIN, "--prop", "system.customHalProxSap=" + m_halSap,
                               "--prop", "system.customDataMgrSap=" + m_dataSap, "--prop",
                               "system.routeMgrSap=" + m_routeSap},
      NextLog("routemgr"));
  // The route service listens only once both peers are connected.
  return route->Start() && PollUntil([this] { return Accepts(m_routeSap); }, kStartTimeoutMs);
}

bool cStack::Start() { return StartHal() && StartDataMgr() && StartRouteMgr(); }

std::vector<std::string> cStack::HalTable() const {
  std::vector<std::string> lines;
  std::string error;
  if (!routectl::FetchHalTable(m_halSap, 2000, lines, error)) return {"error: " + error};
  return lines;
}

bool cStack::WaitTable(std::vector<std::string> const& want,
                       std::vector<std::string> const& unwanted, int timeoutMs) const {
  return PollUntil(
      [&] {
        std::vector<std::string> table = HalTable();
        for (auto const& w : want)
          if (!Contains(table, w)) return false;
        for (auto const& u : unwanted)
          if (Contains(table, u)) return false;
        return true;
      },
      timeoutMs);
}

cToolRun cStack::Routectl(std::vector<std::string> const& args, std::string const& input) {
  std::vector<std::string> argv{ROUTECTL_BIN, "--server", m_routeSap};
  argv.insert(argv.end(), args.begin(), args.end());
  std::string base = Dir() + "/" + std::to_string(++m_runs) + "-routectl";
  m_logs.push_back(base + ".err");
  return RunTool(argv, base, input);
}

std::unique_ptr<cProcess> cStack::SpawnRoutectl(std::vector<std::string> const& args) {
  std::vector<std::string> argv{ROUTECTL_BIN, "--server", m_routeSap};
  argv.insert(argv.end(), args.begin(), args.end());
  auto p = std::make_unique<cProcess>("routectl", argv, NextLog("routectl"));
  p->Start();
  return p;
}

cToolRun cStack::Datactl(std::vector<std::string> const& args) {
  std::vector<std::string> argv{DATACTL_BIN, "--server", m_dataSap};
  argv.insert(argv.end(), args.begin(), args.end());
  std::string base = Dir() + "/" + std::to_string(++m_runs) + "-datactl";
  m_logs.push_back(base + ".err");
  return RunTool(argv, base);
}

}  // namespace e2e

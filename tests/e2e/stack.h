// The whole system on loopback for one test: halproxy (memory backend by
// default), datamgr with the shipped example configuration, and routemgr,
// each on a port of its own; plus the command-line tools against them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "e2e/harness.h"

namespace e2e {

// What the shipped example configuration and the tests agree on.
namespace example {
constexpr char kWiredGw[] = "192.168.1.254";  // the wired WAN's gateway (eth1)
constexpr char kMgmtRoute[] = "192.168.50.0/24 via 192.168.1.254 metric 0";  // setup dsl, own gw
}  // namespace example

class cStack {
 public:
  struct cOptions {
    std::vector<std::string> halPrefix;  // e.g. "ip netns exec NS" for a kernel in a namespace
    std::vector<std::string> halArgs{"--backend=memory"};
    bool halOnUnixSocket = false;  // reachable across network namespaces
  };

  cStack();
  explicit cStack(cOptions options);
  // Prints the tail of every log when the test has failed.
  ~cStack();

  // Starts all three and waits until routemgr serves route clients.
  bool Start();
  bool StartHal();
  bool StartDataMgr();
  bool StartRouteMgr();

  std::string const& Dir() const { return m_dir.Path(); }
  std::string const& HalSap() const { return m_halSap; }
  std::string const& DataSap() const { return m_dataSap; }
  std::string const& RouteSap() const { return m_routeSap; }

  // The HAL proxy's table, one FormatRoute line each; a failure gives one
  // line starting with "error:".
  std::vector<std::string> HalTable() const;
  // Waits until the table holds every one of want and none of unwanted.
  bool WaitTable(std::vector<std::string> const& want,
                 std::vector<std::string> const& unwanted = {}, int timeoutMs = 5000) const;

  // routectl against this stack's route service (arguments after --server).
  cToolRun Routectl(std::vector<std::string> const& args, std::string const& input = "");
  // A routectl that keeps running (for --hold); its output goes to a log.
  std::unique_ptr<cProcess> SpawnRoutectl(std::vector<std::string> const& args);
  cToolRun Datactl(std::vector<std::string> const& args);

  std::unique_ptr<cProcess> hal, data, route;

 private:
  std::string NextLog(std::string const& name);

  cOptions m_options;
  cTempDir m_dir;
  std::string m_halSap, m_dataSap, m_routeSap;
  std::vector<std::string> m_logs;
  int m_runs = 0;
};

}  // namespace e2e

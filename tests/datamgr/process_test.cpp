// The real programs: datamgr as a child process, datactl run as users do.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

#include "dataIO/data_client.h"
#include "datastore/records/db_network_status_collection.h"
#include "kest/loop.h"
#include "kest/service.h"

namespace datamgr {
namespace {

std::string ReadFile(std::string const& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class DatamgrProcess : public ::testing::Test, public dataIO::IDataClient {
 protected:
  void SetUp() override {
    kest::ResetLoop();
    std::string const dir = testing::TempDir();
    m_socket = dir + "datamgr_process_test.sock";
    m_config = dir + "datamgr_process_test.json";
    m_log = dir + "datamgr_process_test.log";
    std::ofstream(m_config) << ReadFile(EXAMPLE_CONFIG);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, m_log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::string const listen = "unix:" + m_socket;
    char const* argv[] = {DATAMGR_BIN, "--listen", listen.c_str(), "--config", m_config.c_str(), nullptr};
    ASSERT_EQ(posix_spawn(&m_pid, DATAMGR_BIN, &actions, nullptr, const_cast<char**>(argv), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
  }
  void TearDown() override {
    client.reset();
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
    for (auto const& f : {m_config, m_log}) std::remove(f.c_str());
  }

  void OnConnect(kest::cServiceClient*) override {}
  void OnDisconnect(kest::cServiceClient*) override {}
  void OnSync(dataIO::cDataClient*, dataIO::cDBCollection* c) override {
    setup = static_cast<dataIO::cDBNetworkStatusCollection*>(c)->ReceivedWanSetupName();
  }

  bool RunUntil(std::function<bool()> done) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done() && std::chrono::steady_clock::now() < deadline) kest::Loop().RunOnce(10);
    return done();
  }
  int Datactl(std::string const& args) {
    std::string const cmd = std::string(DATACTL_BIN) + " --server unix:" + m_socket + " " + args +
                            " >/dev/null 2>&1";
    int const status = std::system(cmd.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  kest::cService service;
  std::unique_ptr<dataIO::cDataClient> client;
  std::string setup;
  pid_t m_pid = -1;
  std::string m_socket, m_config, m_log;
};

TEST_F(DatamgrProcess, DatactlReachesASubscribedClientAndABadReloadChangesNothing) {
  client = std::make_unique<dataIO::cDataClient>(&service, this, 1000, "unix:" + m_socket);
  ASSERT_TRUE(client->Start());
  ASSERT_TRUE(client->RegisterCollection(new dataIO::cDBNetworkStatusCollection()));
  ASSERT_TRUE(RunUntil([&] { return setup == "dsl"; })) << ReadFile(m_log);

  EXPECT_EQ(Datactl("set-wan-setup lte"), 0);
  ASSERT_TRUE(RunUntil([&] { return setup == "lte"; })) << ReadFile(m_log);
  EXPECT_EQ(Datactl("route-del dsl nosuchroute"), 1);
  EXPECT_EQ(Datactl("route-set dsl"), 2);

  std::ofstream(m_config) << "{\n  \"status\": {\"wanSetup\": \"fibre\"}\n  \"wanSetups\": {}\n}\n";
  kill(m_pid, SIGHUP);
  ASSERT_TRUE(RunUntil([&] { return ReadFile(m_log).find("reload refused") != std::string::npos; }));
  EXPECT_NE(ReadFile(m_log).find(m_config + ":3:"), std::string::npos) << ReadFile(m_log);
  EXPECT_EQ(Datactl("list /Status/Network/"), 0);  // still serving
  EXPECT_EQ(setup, "lte");

  kill(m_pid, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(m_pid, &status, 0), m_pid);
  m_pid = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
}  // namespace datamgr

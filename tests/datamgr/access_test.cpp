// datamgr's listener bounds and allow-lists as its command line sets them.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "datactl_cli.h"
#include "kest/format.h"

namespace datamgr {
namespace {

// datamgr on a Unix socket in a private directory, its stderr in a log.
class cDatamgrRun {
 public:
  cDatamgrRun() {
    char tmpl[] = "/tmp/datamgr-access-XXXXXX";
    if (mkdtemp(tmpl) != nullptr) m_dir = tmpl;
  }
  ~cDatamgrRun() {
    if (m_pid > 0) {
      kill(m_pid, SIGTERM);
      waitpid(m_pid, nullptr, 0);
    }
    unlink(Path().c_str());
    unlink(LogPath().c_str());
    rmdir(m_dir.c_str());
  }
  std::string Path() const { return m_dir + "/data.sock"; }
  std::string Sap() const { return "unix:" + Path(); }
  std::string LogPath() const { return m_dir + "/datamgr.log"; }
  std::string Log() const {
    std::ifstream in(LogPath());
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  // Runs datamgr with args; with wait, until it listens (true) or ends
  // (false, status in Status()); without, until it ends.
  bool Start(std::vector<std::string> args, bool wait = true) {
    args.insert(args.begin(), DATAMGR_BIN);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, LogPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    int rc = posix_spawn(&m_pid, DATAMGR_BIN, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < deadline) {
      if (wait && Log().find("listening on") != std::string::npos) return true;
      int status = 0;
      if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }
  int Status() const { return m_status; }
  // datactl list, made in this process: "" when answered, else why not.
  std::string List() const {
    ctl::cRequest req;
    ctl::cReply reply;
    std::string error;
    return SendControl(Sap(), req, reply, error, 2000) ? "" : error;
  }

 private:
  std::string m_dir;
  pid_t m_pid = -1;
  int m_status = -1;
};

class DatamgrAccess : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::getenv("ROUTEMGR_EMULATED") != nullptr)
      GTEST_SKIP() << "starts datamgr, a target program: not under emulation";
  }
};

TEST_F(DatamgrAccess, SocketModeAndConnectionLimitFromTheCommandLine) {
  cDatamgrRun dm;
  ASSERT_TRUE(dm.Start({"--listen", dm.Sap(), "--socket-mode", "0640", "--max-connections=1",
                        "--send-limit", "65540"}))
      << dm.Log();
  struct stat st {};
  ASSERT_EQ(stat(dm.Path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_NE(dm.Log().find("listening on " + dm.Sap() +
                          " (mode 0640, any user the mode lets in; at most 1 connections, send "
                          "limit 65540 bytes)"),
            std::string::npos)
      << dm.Log();

  int holder = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un un{};
  un.sun_family = AF_UNIX;
  std::snprintf(un.sun_path, sizeof un.sun_path, "%s", dm.Path().c_str());
  ASSERT_EQ(connect(holder, reinterpret_cast<sockaddr*>(&un), sizeof un), 0);
  // Accepted in the order they came: the holder has the one place.
  EXPECT_NE(dm.List(), "");
  EXPECT_NE(dm.Log().find(kest::FormatString("refusing connection from uid=%u pid=%d on %s: 1 "
                                             "connections open, the limit",
                                             getuid(), getpid(), dm.Sap().c_str())),
            std::string::npos)
      << dm.Log();
  close(holder);
  std::string answer = "not tried";
  for (int i = 0; i < 100 && !answer.empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // until it sees the close
    answer = dm.List();
  }
  EXPECT_EQ(answer, "");
}

TEST_F(DatamgrAccess, AllowListsAndBadValues) {
  std::string const otherUid = std::to_string(getuid() + 1);
  {
    cDatamgrRun dm;
    ASSERT_TRUE(dm.Start({"--listen", dm.Sap(), "--allow-uid", otherUid})) << dm.Log();
    EXPECT_NE(dm.List(), "");
    EXPECT_NE(dm.Log().find(kest::FormatString("uid %u gid %u not allowed", getuid(), getgid())),
              std::string::npos)
        << dm.Log();
  }
  {
    cDatamgrRun dm;
    ASSERT_TRUE(dm.Start({"--listen", dm.Sap(), "--allow-uid", otherUid, "--allow-gid",
                          std::to_string(getgid())}))
        << dm.Log();
    EXPECT_EQ(dm.List(), "");
  }
  struct Case {
    std::vector<std::string> args;
    char const* said;
  } const cases[] = {
      {{"--socket-mode", "0999"}, "bad value '0999' for --socket-mode"},
      {{"--max-connections=0"}, "bad value '0' for --max-connections"},
      {{"--send-limit", "1024"}, "bad value '1024' for --send-limit"},
      {{"--allow-gid=no-such-group-here"}, "unknown group \"no-such-group-here\""},
      {{"--listen", "127.0.0.1:0", "--allow-uid", "0"}, "need --listen unix:/path"},
  };
  for (auto const& c : cases) {
    cDatamgrRun dm;
    std::vector<std::string> args = {"--listen", dm.Sap()};
    args.insert(args.end(), c.args.begin(), c.args.end());
    EXPECT_FALSE(dm.Start(args, false));
    EXPECT_EQ(dm.Status(), 2) << c.args[0];
    EXPECT_NE(dm.Log().find(c.said), std::string::npos) << dm.Log();
  }
}

}  // namespace
}  // namespace datamgr

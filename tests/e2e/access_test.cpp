// Who may use which service: with the packaged settings, a local user outside
// the groups is refused by each service while a route client is served. (A
// client of another service is refused by the transport, tests/kest.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "support/stack.h"

namespace testsupport {
namespace {

// The three services with the packaged files' settings, in a directory of
// the test's instead of the runtime directory and with numbers for the
// accounts this machine does not have: routemgr runs as root here.
TEST(E2eAccess, PackagedSettingsServeTheRouteClientGroupAndRefuseOthers) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run tools as another user";
  if (std::system("setpriv --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no setpriv";
  constexpr char kClientGid[] = "4242", kAdminGid[] = "4243";
  cTempDir run("rm-e2e-run");
  chmod(run.Path().c_str(), 0755);  // the other user must reach the sockets
  for (char const* sub : {"/hal", "/data", "/route"}) mkdir((run.Path() + sub).c_str(), 0755);
  cStack stack;
  std::stringstream all(PACKAGED_ACCESS);
  for (auto* list : {&stack.halArgs, &stack.dataArgs, &stack.routeArgs}) {
    std::string one;
    std::getline(all, one, '|');
    for (auto [from, to] : {std::pair<std::string, std::string>{PACKAGED_RUN_DIR, run.Path()},
                            {",routemgr", ",0"},
                            {PACKAGED_CLIENT_GROUP, kClientGid},
                            {PACKAGED_ADMIN_GROUP, kAdminGid}})
      for (std::size_t at; (at = one.find(from)) != std::string::npos;)
        one.replace(at, from.size(), to);
    std::stringstream words(one);
    for (std::string w; words >> w;) list->push_back(w);
  }
  stack.halSap = "unix:" + run.Path() + "/hal/hal.sock";
  stack.dataSap = "unix:" + run.Path() + "/data/data.sock";
  stack.routeSap = "unix:" + run.Path() + "/route/route.sock";
  ASSERT_TRUE(stack.Start());
  ASSERT_TRUE(stack.WaitTable({kMgmtRoute}));  // the configuration is in
  std::vector<std::string> const before = stack.HalTable();

  std::string const nobody = "setpriv --reuid=65534 --regid=65534 ";
  stack.toolPrefix = nobody + "--clear-groups ";
  cToolRun const refused[] = {
      stack.Routectl({"gateway", "set", "wired", "192.168.1.254", "type", "default"}),
      stack.Routectl({"--hal", stack.halSap, "--hal-table"}),
      stack.Datactl({"set-wan-setup", "lte"}),
  };
  for (auto const& r : refused) {
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("refused the connection: uid 65534 gid 65534 not allowed"),
              std::string::npos)
        << r.err;
  }
  for (auto* p : {stack.hal.get(), stack.data.get(), stack.route.get()}) {
    EXPECT_TRUE(p->Logged("refusing connection from uid=65534 pid=")) << p->Log();
  }
  EXPECT_EQ(stack.HalTable(), before);

  // A route client is a member of the group, not its login group; an admin
  // may change the store, which a route client may not.
  stack.toolPrefix = nobody + "--groups=" + kClientGid + " ";
  EXPECT_EQ(stack
                .Routectl({"gateway", "set", "wired", "192.168.1.254", "dev", "eth1", "type",
                           "default", "metric", "5"})
                .status,
            0);
  EXPECT_TRUE(stack.WaitTable({"default via 192.168.1.254 metric 5"}));
  EXPECT_EQ(stack.Datactl({"list"}).status, 1);
  stack.toolPrefix = nobody + "--groups=" + kAdminGid + " ";
  EXPECT_EQ(stack.Datactl({"set-wan-setup", "lte"}).status, 0);
}

}  // namespace
}  // namespace testsupport

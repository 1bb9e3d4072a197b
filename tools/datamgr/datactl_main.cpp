// datactl: one control request to the data manager, its answer on stdout.
// Exit 0 on success, 1 when refused or unreachable, 2 for usage errors.
#include <cstdio>

#include "datactl_cli.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string server, error;
  datamgr::ctl::cRequest req;
  bool help = false;
  if (!datamgr::ParseDatactlArgs(args, server, req, help, error)) {
    std::fprintf(stderr, "datactl: %s\n%s", error.c_str(), datamgr::kDatactlUsage);
    return 2;
  }
  if (help) {
    std::fputs(datamgr::kDatactlUsage, stdout);
    return 0;
  }
  datamgr::ctl::cReply reply;
  if (!datamgr::SendControl(server, req, reply, error)) {
    std::fprintf(stderr, "datactl: %s\n", error.c_str());
    return 1;
  }
  if (reply.rc != datamgr::ctl::kOk) {
    std::fprintf(stderr, "datactl: %s\n", reply.text.c_str());
    return 1;
  }
  std::fputs(reply.text.c_str(), stdout);
  return 0;
}

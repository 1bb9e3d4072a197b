// datactl: one control request to the data manager, its answer on stdout.
// Exit 0 on success, 1 when refused or unreachable, 2 for usage errors.
#include <cstdio>

#include "datactl_cli.h"

int main(int argc, char** argv) {
  std::string server, error;
  datamgr::ctl::cRequest req;
  if (int const status = datamgr::ParseDatactlArgs(argc, argv, server, req); status >= 0)
    return status;
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

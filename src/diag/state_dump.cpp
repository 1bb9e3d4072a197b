// Plain-text snapshot of the service for operators.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "core/route_mgr_service.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "kest/format.h"

namespace {
constexpr char const* kDumpFile = "routemgr.dmp";

char const* ClientState(kest::cServiceClient const& client) {
  return client.IsConnected() ? "CONNECTED" : "NOT CONNECTED";
}

char const* CollectionState(dataIO::cDBCollection const* collection) {
  if (collection == nullptr) {
    return "IS NULL";
  }
  return collection->IsSynced() ? "IS SYNCED" : "NOT SYNCED";
}

std::string CollectionDir(dataIO::cDBCollection const* collection) {
  return collection == nullptr ? std::string() : collection->GetDir();
}

char const* Flag(bool b) { return b ? "TRUE" : "FALSE"; }

std::string Size(std::size_t n) {
  return n == 0 ? std::string("EMPTY") : kest::FormatString("%d Entries", static_cast<int>(n));
}
}  // namespace

std::string cRouteMgrService::ToString(char const* prefix) const {
  std::string const indent = std::string(prefix) + " ";
  std::string out;
  out += kest::FormatString("%s- m_dataClient:           %s (%s)\n", prefix,
                            ClientState(m_dataClient), m_dataClient.AccessPoint().c_str());
  out += kest::FormatString("%s- m_halClient:            %s (%s)\n", prefix,
                            ClientState(m_halClient), m_halClient.AccessPoint().c_str());
  out +=
      kest::FormatString("%s- m_networkStatus:        %s (%s)\n", prefix,
                         CollectionState(m_networkStatus), CollectionDir(m_networkStatus).c_str());
  out += kest::FormatString("%s- m_StatusReceived:       %s\n", prefix, Flag(m_StatusReceived));
  out += kest::FormatString("%s- m_RoutingCollection:    %s (%s)\n", prefix,
                            CollectionState(m_RoutingCollection),
                            CollectionDir(m_RoutingCollection).c_str());
  out += kest::FormatString("%s- m_ConfigReceived:       %s\n", prefix, Flag(m_ConfigReceived));
  out += kest::FormatString("%s- m_Gateways:             %s\n", prefix,
                            Size(m_Gateways.size()).c_str());
  for (auto const& [tag, gw] : m_Gateways) {
    out += gw.ToString(indent.c_str());
  }
  out +=
      kest::FormatString("%s- m_Routes:               %s\n", prefix, Size(m_Routes.size()).c_str());
  for (auto const& [tag, route] : m_Routes) {
    out += route.ToString(indent.c_str());
  }
  if (m_RoutingCollection != nullptr) {
    auto const& inForce = m_RoutingCollection->RoutesInForce();
    out += kest::FormatString("%s- Routes By Config:       %s\n", prefix,
                              Size(inForce.size()).c_str());
    for (auto const& [key, route] : inForce) {
      out += kest::FormatString("%s- %s:%s\n", indent.c_str(), key.c_str(),
                                route.ToString("").c_str());
    }
  } else {
    out += kest::FormatString(
        "%s- Service not completely started yet - Routes By Config not available\n", prefix);
  }
  return out;
}

namespace {

// fopen(path, "w"), except that a symlink or anything but a regular file in
// the last component is refused: the dump directory is often world-writable
// (/tmp) or named by a peer, and the daemon may run with more rights than
// whoever planted the link. A FIFO would block the loop, hence O_NONBLOCK
// until the file is known to be regular.
FILE* OpenDumpFile(std::string const& path) {
  int fd;
  do {
    fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
              0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return nullptr;
  struct stat st {};
  FILE* file = nullptr;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) == 0) {
    file = fdopen(fd, "w");
  }
  if (file == nullptr) close(fd);
  return file;
}

}  // namespace

void WriteDump(cRouteMgrService const* service, int source, std::string const& directory) {
  std::string const path = kest::FormatString("%s/%s", directory.c_str(), kDumpFile);
  FILE* file = OpenDumpFile(path);
  if (file == nullptr) {
    return;  // a dump is best effort: no directory, no dump
  }
  fputs("--- ROUTEMGR LR-DUMP ---\n", file);
  switch (source) {
    case SIG_REQ:
      fputs("- Dumpsource: SIG_REQ\n", file);
      break;
    case SRV_REQ:
      fputs("- Dumpsource: SRV_REQ\n", file);
      break;
    default:
      fprintf(file, "- Dumpsource: UNKNOWN (%d)\n", source);
      break;
  }
  fputs(service->ToString(" ").c_str(), file);
  fclose(file);
}

bool cRouteMgrService::OnDumpRequest(dataIO::cDataClient*, kest::s_string const& directory) {
  WriteDump(this, SRV_REQ, directory.Get());
  return true;
}

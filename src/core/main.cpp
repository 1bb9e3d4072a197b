#include <malloc.h>

#include <string>

#include "core/route_mgr_service.h"
#include "core/status_text.h"
#include "kest/properties.h"

namespace {
// Buffers this large (a refresh keeps an answer per route) are mapped on their
// own and unmapped when freed. Left to itself glibc raises the threshold to
// the size of the first such buffer freed, and the next ones then come from
// the heap, above the route tables: a table freed and filled again no longer
// fits where it was, and the heap grows by a megabyte a fill of 100,000 routes.
constexpr int kMmapThreshold = 128 * 1024;
}  // namespace

int main(int argc, char** argv) {
#ifdef M_MMAP_THRESHOLD  // glibc; other C libraries decide by themselves
  mallopt(M_MMAP_THRESHOLD, kMmapThreshold);
#endif
  kest::kestInit(argc, argv, "");
  std::string dataMgrSap =
      kest::kestProperties().GetStringForKey("system.customDataMgrSap", "127.0.0.1:3711");
  std::string halProxSap =
      kest::kestProperties().GetStringForKey("system.customHalProxSap", "127.0.0.1:3710");
  {
    cRouteMgrService service(dataMgrSap, halProxSap);
    service.Init("routeMgr", 3704);
    service.SetStatusSource([&service] { return StatusText(service); });
    service.Run();
    kest::kestDeinit(true);
  }
  return 0;
}

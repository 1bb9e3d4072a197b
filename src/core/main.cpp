#include <string>

#include "core/route_mgr_service.h"
#include "core/status_text.h"
#include "kest/properties.h"

int main(int argc, char** argv) {
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

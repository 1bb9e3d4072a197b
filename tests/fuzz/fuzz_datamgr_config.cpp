// The data manager's device configuration loader on arbitrary text: people
// write that file.
#include "config_json.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  datamgr::cDeviceConfig config;
  std::string error;
  if (!datamgr::ParseDeviceConfig(std::string(reinterpret_cast<char const*>(data), size), config,
                                  error)) {
    FUZZ_CHECK(!error.empty());
    return 0;
  }
  // Everything loaded is then published, so it must encode.
  kest::cSerializeBuffer buf;
  FUZZ_CHECK(config.wan.Serialize(buf));
  for (auto const& [setup, routes] : config.wanSetups) {
    for (auto const& [key, route] : routes) FUZZ_CHECK(route.Serialize(buf));
  }
  return 0;
}

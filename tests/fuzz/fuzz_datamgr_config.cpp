// The data manager's device configuration loader on arbitrary text: people
// write that file.
#include "config_json.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<char const*>(data), size);
  datamgr::cDeviceConfig config;
  std::string error;
  if (!datamgr::ParseDeviceConfig(text, config, error)) {
    FUZZ_CHECK(!error.empty());
  } else {
    // Everything loaded is then published, so it must encode.
    kest::cSerializeBuffer buf;
    FUZZ_CHECK(config.wan.Serialize(buf));
    for (auto const& [setup, routes] : config.wanSetups) {
      for (auto const& [key, route] : routes) FUZZ_CHECK(route.Serialize(buf));
    }
  }
  std::uint32_t network = 0, netmask = 0;
  if (datamgr::ParsePrefix(text, network, netmask, error)) {
    FUZZ_CHECK(datamgr::IsContiguousMask(netmask));
  }
  return 0;
}

// The data-store records on arbitrary bytes, as the data manager's
// synchronisations deliver them to the route manager. Byte 0 selects the
// record.
#include <memory>

#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "fuzz_check.h"

namespace {

using namespace dataIO;

template <typename R>
void RoundTrip(const std::uint8_t* data, std::size_t size) {
  kest::cSerializeBuffer body(data, size);
  R record;
  if (!record.Deserialize(body)) {
    FUZZ_CHECK(record.Equals(R()));  // rejected whole, nothing half-read
    return;
  }
  (void)record.ToString("");
  kest::cSerializeBuffer first;
  FUZZ_CHECK(record.Serialize(first));
  R back;
  FUZZ_CHECK(back.Deserialize(first) && first.AtEnd() && back.Equals(record));
  FUZZ_CHECK(std::unique_ptr<cDBItem>(record.Clone())->Equals(record));
}

void (*const kRun[])(const std::uint8_t*, std::size_t) = {
    RoundTrip<cDBConfigWanRoute>, RoundTrip<cDBStatusConnection>, RoundTrip<cDBStatusLan>,
    RoundTrip<cDBStatusWan>,      RoundTrip<cDBStatusWiredWan>,   RoundTrip<cDBStatusWirelessWan>};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const long live = kest::GC::LiveCount();
  kRun[data[0] % 6](data + 1, size - 1);
  FUZZ_CHECK(kest::GC::LiveCount() == live);  // no collectable object left behind
  return 0;
}

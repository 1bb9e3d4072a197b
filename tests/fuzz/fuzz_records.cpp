// The data-store records on arbitrary bytes, as the data manager's
// synchronisations deliver them to the route manager. Byte 0 selects:
//   0..5  one record's Deserialize;
//   6, 7  synchronisation steps on the network status collection (6) or a
//         WAN setup's routing collection (7); each step is
//         [u8 action][u8 name][u16 LE length][record bytes].
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

template <bool kStatus>
void Sync(const std::uint8_t* data, std::size_t size) {
  static char const* const kStatusNames[] = {
      cDBStatusConnection::kItemName, cDBStatusLan::kItemName,         cDBStatusWan::kItemName,
      cDBStatusWiredWan::kItemName,   cDBStatusWirelessWan::kItemName, "NoSuchStatus"};
  cDBNetworkStatusCollection status;
  cDBWanRoutingCollection routing("dsl");
  cDBCollection& coll = kStatus ? static_cast<cDBCollection&>(status) : routing;
  fuzz::Steps(data, size, 2, [&](const std::uint8_t* h, kest::cSerializeBuffer& bytes) {
    const std::string name = kStatus ? kStatusNames[h[1] % 6] : "route" + std::to_string(h[1] % 4);
    int const action = h[0] % 4;
    if (action == 0) coll.BeginSync();
    if (action == 1) (void)coll.ReceiveItem(name, bytes);
    if (action == 2) coll.RemoveItem(name);
    if (action == 3) {
      (void)coll.HasChanged();
      coll.EndSync();
      FUZZ_CHECK(!coll.HasChanged());
    }
  });
  (void)status.InForceWanSetupName();
  (void)status.InForceWanStatus().ToString("");
  for (auto const& [key, route] : routing.RoutesInForce()) (void)route.ToString("");
}

void (*const kRun[])(const std::uint8_t*, std::size_t) = {RoundTrip<cDBConfigWanRoute>,
                                                          RoundTrip<cDBStatusConnection>,
                                                          RoundTrip<cDBStatusLan>,
                                                          RoundTrip<cDBStatusWan>,
                                                          RoundTrip<cDBStatusWiredWan>,
                                                          RoundTrip<cDBStatusWirelessWan>,
                                                          Sync<true>,
                                                          Sync<false>};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const long live = kest::GC::LiveCount();
  kRun[data[0] % 8](data + 1, size - 1);
  FUZZ_CHECK(kest::GC::LiveCount() == live);  // no collectable object left behind
  return 0;
}

// The data-store records on arbitrary bytes, as the data manager's
// synchronisations deliver them to the route manager. Byte 0 selects:
//   0..5  one record's Deserialize (what decodes must re-encode stably);
//   6, 7  a run of synchronisation steps on the network status collection
//         (6) or a WAN setup's routing collection (7); each step is
//         [u8 action][u8 name][u16 LE length][record bytes].
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "datastore/records/db_config_wan_route.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_status_connection.h"
#include "datastore/records/db_status_lan.h"
#include "datastore/records/db_status_wan.h"
#include "datastore/records/db_status_wired_wan.h"
#include "datastore/records/db_status_wireless_wan.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "fuzz_check.h"

namespace {

template <typename R>
void RoundTrip(kest::cSerializeBuffer& body) {
  R record;
  R const pristine;
  if (!record.Deserialize(body)) {
    // Rejected whole: the record keeps its previous content.
    FUZZ_CHECK(record.Equals(pristine));
    return;
  }
  (void)record.ToString("");
  kest::cSerializeBuffer first;
  FUZZ_CHECK(record.Serialize(first));
  R back;
  FUZZ_CHECK(back.Deserialize(first) && first.AtEnd());
  FUZZ_CHECK(back.Equals(record));
  std::unique_ptr<dataIO::cDBItem> clone(record.Clone());
  FUZZ_CHECK(clone->Equals(record));
}

char const* const kStatusNames[] = {
    dataIO::cDBStatusConnection::kItemName, dataIO::cDBStatusLan::kItemName,
    dataIO::cDBStatusWan::kItemName,        dataIO::cDBStatusWiredWan::kItemName,
    dataIO::cDBStatusWirelessWan::kItemName, "NoSuchStatus"};

std::string NameFor(bool status, std::uint8_t sel) {
  if (status) return kStatusNames[sel % 6];
  return "route" + std::to_string(sel % 4);
}

void Sync(bool status, const std::uint8_t* data, std::size_t size) {
  dataIO::cDBNetworkStatusCollection statusColl;
  dataIO::cDBWanRoutingCollection routingColl("dsl");
  dataIO::cDBCollection& coll =
      status ? static_cast<dataIO::cDBCollection&>(statusColl) : routingColl;
  std::size_t pos = 0;
  while (size - pos >= 4) {
    const std::uint8_t action = data[pos];
    const std::string name = NameFor(status, data[pos + 1]);
    std::size_t len = data[pos + 2] | data[pos + 3] << 8;
    pos += 4;
    if (len > size - pos) len = size - pos;
    kest::cSerializeBuffer bytes(data + pos, len);
    pos += len;
    switch (action % 4) {
      case 0: coll.BeginSync(); break;
      case 1: {
        const std::size_t cursor = bytes.Cursor();
        if (!coll.ReceiveItem(name, bytes)) FUZZ_CHECK(bytes.Cursor() >= cursor);
        break;
      }
      case 2: coll.RemoveItem(name); break;
      case 3:
        (void)coll.HasChanged();
        coll.EndSync();
        FUZZ_CHECK(!coll.HasChanged());
        break;
    }
  }
  if (status) {
    (void)statusColl.InForceWanSetupName();
    (void)statusColl.InForceWanStatus().ToString("");
  } else {
    for (auto const& [key, route] : routingColl.RoutesInForce()) (void)route.ToString("");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const long live = kest::GC::LiveCount();
  kest::cSerializeBuffer body = fuzz::Body(data, size, 1);
  switch (data[0] % 8) {
    case 0: RoundTrip<dataIO::cDBConfigWanRoute>(body); break;
    case 1: RoundTrip<dataIO::cDBStatusConnection>(body); break;
    case 2: RoundTrip<dataIO::cDBStatusLan>(body); break;
    case 3: RoundTrip<dataIO::cDBStatusWan>(body); break;
    case 4: RoundTrip<dataIO::cDBStatusWiredWan>(body); break;
    case 5: RoundTrip<dataIO::cDBStatusWirelessWan>(body); break;
    case 6: Sync(true, data + 1, size - 1); break;
    case 7: Sync(false, data + 1, size - 1); break;
  }
  // Every collectable object made on the heap on the way is gone again.
  FUZZ_CHECK(kest::GC::LiveCount() == live);
  return 0;
}

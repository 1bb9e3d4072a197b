#include "datastore/records/db_network_status_collection.h"

#include <type_traits>

#include "datastore/records/directories.h"

namespace dataIO {

cDBNetworkStatusCollection::cDBNetworkStatusCollection() : cDBCollection(kNetworkStatusDir) {}

void cDBNetworkStatusCollection::BeginSync() {
  ForEachPair([](auto const& inForce, auto& received) { received = inForce; });
}

bool cDBNetworkStatusCollection::ReceiveItem(std::string const& name,
                                             kest::cSerializeBuffer& bytes) {
  // The records' names differ, so at most one of them takes the bytes.
  bool decoded = false;
  ForEachPair([&](auto const&, auto& received) {
    if (received.GetName() == name) decoded = received.Deserialize(bytes);
  });
  return decoded;
}

void cDBNetworkStatusCollection::RemoveItem(std::string const& name) {
  ForEachPair([&name](auto const&, auto& received) {
    if (received.GetName() == name) received = std::decay_t<decltype(received)>();
  });
}

void cDBNetworkStatusCollection::EndSync() {
  ForEachPair([](auto& inForce, auto const& received) { inForce = received; });
}

bool cDBNetworkStatusCollection::HasChanged() {
  bool changed = false;
  ForEachPair([&changed](auto const& inForce, auto const& received) {
    changed = changed || !inForce.Equals(received);
  });
  return changed;
}

}  // namespace dataIO

#include "datastore/records/db_wan_routing_collection.h"

#include "datastore/records/directories.h"
#include "kest/format.h"

namespace dataIO {

cDBWanRoutingCollection::cDBWanRoutingCollection(std::string const& setupName)
    : cDBCollection(DirectoryFor(setupName)) {}

std::string cDBWanRoutingCollection::DirectoryFor(std::string const& setupName) {
  return kest::FormatString("%s%s/%s/", kWanSetupsDir, setupName.c_str(), kRoutingDirName);
}

void cDBWanRoutingCollection::BeginSync() { m_routesReceived = m_routes; }

bool cDBWanRoutingCollection::ReceiveItem(std::string const& name, kest::cSerializeBuffer& bytes) {
  cDBConfigWanRoute route(name, GetDir());
  if (!route.Deserialize(bytes)) return false;
  m_routesReceived.insert_or_assign(name, route);
  return true;
}

void cDBWanRoutingCollection::RemoveItem(std::string const& name) { m_routesReceived.erase(name); }

void cDBWanRoutingCollection::EndSync() { m_routes = m_routesReceived; }

bool cDBWanRoutingCollection::HasChanged() {
  if (m_routes.size() != m_routesReceived.size()) return true;
  for (auto inForce = m_routes.begin(), received = m_routesReceived.begin();
       inForce != m_routes.end(); ++inForce, ++received) {
    if (inForce->first != received->first || !inForce->second.Equals(received->second)) return true;
  }
  return false;
}

}  // namespace dataIO

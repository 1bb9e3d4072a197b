// The two collections the route manager mirrors from the data manager.
#include "core/route_mgr_service.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"

dataIO::cDBNetworkStatusCollection* CreateNetworkStatusCollection(dataIO::cDataClient& client) {
  auto* collection = new dataIO::cDBNetworkStatusCollection();
  if (!client.RegisterCollection(collection)) {
    delete collection;
    return nullptr;
  }
  return collection;
}

dataIO::cDBWanRoutingCollection* CreateRoutingCollection(dataIO::cDataClient& client,
                                                         std::string const& setupName) {
  auto* collection = new dataIO::cDBWanRoutingCollection(setupName);
  if (!client.RegisterCollection(collection)) {
    delete collection;
    return nullptr;
  }
  return collection;
}

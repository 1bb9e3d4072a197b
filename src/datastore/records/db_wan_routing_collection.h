// The routing entries of one WAN setup, keyed by entry name: the entries in
// force (as before the synchronisation being reported, and between
// synchronisations) and the entries received (as that synchronisation
// delivered them).
#pragma once

#include <map>
#include <string>

#include "datastore/records/db_config_wan_route.h"
#include "values/db_collection.h"

namespace dataIO {

class cDBWanRoutingCollection : public cDBCollection {
 public:
  using RouteMap = std::map<std::string, cDBConfigWanRoute>;

  explicit cDBWanRoutingCollection(std::string const& setupName);
  // "/Config/Network/WanSetups/<setup name>/Routing/"; the name goes in
  // unchecked, so an empty one gives "//" before "Routing".
  static std::string DirectoryFor(std::string const& setupName);

  void BeginSync() override;
  // The name is the entry's key.
  bool ReceiveItem(std::string const& name, kest::cSerializeBuffer& bytes) override;
  void RemoveItem(std::string const& name) override;
  void EndSync() override;
  // True when the entries received differ from those in force.
  bool HasChanged() override;

  RouteMap const& RoutesInForce() const { return m_routes; }
  RouteMap const& RoutesReceived() const { return m_routesReceived; }

 private:
  RouteMap m_routes;
  RouteMap m_routesReceived;
};

}  // namespace dataIO

// Data-store directories mirrored by the route manager, kept in one place so
// the records, the collections and the data manager agree on them.
#pragma once

namespace dataIO {

// Network status records published by the data manager.
inline constexpr char kNetworkStatusDir[] = "/Status/Network/";
// Parent of every WAN setup's configuration; a setup's routes live in
// <kWanSetupsDir><setup name>/<kRoutingDirName>/.
inline constexpr char kWanSetupsDir[] = "/Config/Network/WanSetups/";
inline constexpr char kRoutingDirName[] = "Routing";

}  // namespace dataIO

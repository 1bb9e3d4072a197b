// The device configuration the data manager serves: the network status
// records and every WAN setup's routing entries, as the records themselves.
#pragma once

#include <map>
#include <string>

#include "datastore/records/db_config_wan_route.h"
#include "datastore/records/db_status_connection.h"
#include "datastore/records/db_status_lan.h"
#include "datastore/records/db_status_wan.h"
#include "datastore/records/db_status_wired_wan.h"
#include "datastore/records/db_status_wireless_wan.h"

namespace datamgr {

// Routing entries of one WAN setup by key (the key is the record's item name).
using RouteTable = std::map<std::string, dataIO::cDBConfigWanRoute>;

struct cDeviceConfig {
  dataIO::cDBStatusConnection connection;
  dataIO::cDBStatusWan wan;
  dataIO::cDBStatusWiredWan wiredWan;
  dataIO::cDBStatusWirelessWan wirelessWan;
  dataIO::cDBStatusLan lan;
  // A setup without entries is kept: the WAN status may name it.
  std::map<std::string, RouteTable> wanSetups;
};

// "wired", "wireless", "vpn", "own" <-> gateway selectors 1..4; false/empty otherwise.
bool SelectorFromText(std::string const& text, std::uint8_t& selector);
std::string SelectorToText(std::uint8_t selector);

// Builds the entry KEY of SETUP (name and directory filled in).
dataIO::cDBConfigWanRoute MakeRoute(std::string const& setup, std::string const& key,
                                    std::uint32_t network, std::uint32_t netmask,
                                    std::uint8_t selector, std::uint32_t gateway,
                                    std::string const& description);

}  // namespace datamgr

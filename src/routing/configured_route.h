// What one configured route is requested with: the gateway its selector
// names, taken from the gateways announced under the WAN tags.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "datastore/records/db_config_wan_route.h"
#include "routing/route_tables.h"

// A WAN tag's gateway as GetGatewayByTag found it: a default record, with
// avail false, when none is announced.
struct cWanGateway {
  cGWEntry entry;
  bool avail = false;
};

struct cWanGateways {
  cWanGateway wired, wireless, vpn;
};

struct cConfiguredRequest {
  kest::s_socket_addr gateway;
  std::string ifname;
  std::uint32_t metric = 0;
  bool gwAvail = true;
};

// Nothing for a selector outside 1..4: the entry is skipped.
std::optional<cConfiguredRequest> ConfiguredRequest(cWanGateways const& gateways,
                                                    dataIO::cDBConfigWanRoute const& route);

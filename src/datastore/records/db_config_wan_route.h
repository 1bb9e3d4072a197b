// One routing entry of a WAN setup's configuration: a destination network and
// the gateway to send it through.
#pragma once

#include "datastore/records/record_codec.h"
#include "values/s_basic_int.h"

namespace dataIO {

// Which gateway a configured route goes through. Values outside 1..4 select
// nothing and the entry is skipped.
enum eGwSelector : std::uint8_t {
  kGwSelectorNone = 0,
  kGwSelectorWired = 1,     // gateway announced under the tag "wired"
  kGwSelectorWireless = 2,  // ... under "wireless"
  kGwSelectorVpn = 3,       // ... under "vpn"
  kGwSelectorOwn = 4,       // the entry's own gateway address
};

class cDBConfigWanRoute : public cDBItem {
 public:
  DATAIO_RECORD(cDBConfigWanRoute)

  // The name is the entry's key in its routing directory.
  explicit cDBConfigWanRoute(std::string const& name = "", std::string const& dir = "");
  cDBConfigWanRoute(std::string const& name, std::string const& dir, kest::s_socket_addr network,
                    kest::s_socket_addr netmask, kest::s_socket_addr gateway, std::uint8_t selector,
                    std::string const& description);
  // "10.10.0.0/255.255.0.0 via wired (gw 0.0.0.0) "office LAN"", whatever the
  // format; the description part is left out when empty.
  std::string ToString(std::string const& format) const override;

  // Defaults: an empty entry that routes nothing, 0.0.0.0/0.0.0.0, no selector.
  // The network's address part only is used; the gateway only with
  // kGwSelectorOwn; the description is free text for the people reading the
  // configuration.
#define DATAIO_CONFIG_WAN_ROUTE(X)                     \
  X(kest::s_socket_addr, m_network, {})                \
  X(kest::s_socket_addr, m_netmask, {})                \
  X(kest::s_socket_addr, m_gateway, {})                \
  X(kest::s_uint8, m_gatewaySelector, kGwSelectorNone) \
  X(kest::s_string, m_description, "")
  DATAIO_MEMBERS(DATAIO_CONFIG_WAN_ROUTE)
};

}  // namespace dataIO

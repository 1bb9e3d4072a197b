#include "device_config.h"

#include "datastore/records/db_wan_routing_collection.h"

namespace datamgr {

namespace {

struct cSelectorName {
  std::uint8_t selector;
  char const* text;
};
constexpr cSelectorName kSelectorNames[] = {
    {dataIO::kGwSelectorWired, "wired"},
    {dataIO::kGwSelectorWireless, "wireless"},
    {dataIO::kGwSelectorVpn, "vpn"},
    {dataIO::kGwSelectorOwn, "own"},
};

}  // namespace

bool SelectorFromText(std::string const& text, std::uint8_t& selector) {
  for (auto const& s : kSelectorNames) {
    if (text == s.text) {
      selector = s.selector;
      return true;
    }
  }
  return false;
}

std::string SelectorToText(std::uint8_t selector) {
  for (auto const& s : kSelectorNames) {
    if (selector == s.selector) return s.text;
  }
  return std::string();
}

dataIO::cDBConfigWanRoute MakeRoute(std::string const& setup, std::string const& key,
                                    std::uint32_t network, std::uint32_t netmask,
                                    std::uint8_t selector, std::uint32_t gateway,
                                    std::string const& description) {
  return dataIO::cDBConfigWanRoute(key, dataIO::cDBWanRoutingCollection::DirectoryFor(setup),
                                   kest::s_socket_addr(network, 0), kest::s_socket_addr(netmask, 0),
                                   kest::s_socket_addr(gateway, 0), selector, description);
}

}  // namespace datamgr

#include "memory_backend.h"

#include <algorithm>

namespace halproxy {

namespace {

std::tuple<std::uint32_t, std::uint8_t, std::uint32_t> Key(cRoute const& r) {
  return {r.dst, r.prefixLen, r.metric};
}

}  // namespace

cMemoryBackend::cMemoryBackend(std::set<std::string> interfaces)
    : m_interfaces(std::move(interfaces)) {}

bool cMemoryBackend::InterfaceExists(std::string const& name) const {
  if (!ValidInterfaceName(name)) return false;
  return m_interfaces.empty() || m_interfaces.count(name) != 0;
}

void cMemoryBackend::Insert(cTableRoute const& entry) { m_table.emplace(Key(entry.route), entry); }

cResult cMemoryBackend::Install(cRoute const& route, eInstall how) {
  if (!route.ifname.empty() && !InterfaceExists(route.ifname)) {
    return {-ENODEV, "no interface '" + route.ifname + "'"};
  }
  if (route.type == eRouteType::kUnicast && route.gateway == 0 && route.ifname.empty()) {
    return {-ENODEV, "a route needs a gateway or an interface"};
  }
  if (m_down.count(route.ifname) != 0)
    return {-ENETDOWN, "interface '" + route.ifname + "' is down"};
  auto const [first, end] = m_table.equal_range(Key(route));
  auto same = std::find_if(first, end,
                           [&](auto const& e) { return e.second.ours && e.second.route == route; });
  if (how == eInstall::kAppend || first == end) {
    if (same != end) return {-EEXIST, ""};
    Insert({route, true});
    return {};
  }
  if (same == first) return {};
  // An identical route further down (two routes of one key exist only by
  // appending) is refused as the kernel does rather than duplicated.
  if (same != end) return {-EEXIST, ""};
  first->second = {route, true};
  return {};
}

cResult cMemoryBackend::Remove(cRoute const& route) {
  auto const [first, end] = m_table.equal_range(Key(route));
  auto it = std::find_if(first, end, [&](auto const& e) {
    cRoute const& r = e.second.route;
    return e.second.ours && r.type == route.type && r.gateway == route.gateway;
  });
  if (it != end) m_table.erase(it);
  return {};
}

cResult cMemoryBackend::List(std::vector<cTableRoute>& routes) {
  routes.clear();
  for (auto const& e : m_table) routes.push_back(e.second);
  return {};
}

void cMemoryBackend::AddForeign(cRoute const& route) {
  Insert({route, false});
  Notify();
}

void cMemoryBackend::Lose(std::function<bool(cRoute const&)> const& which) {
  for (auto it = m_table.begin(); it != m_table.end();) {
    it = which(it->second.route) ? m_table.erase(it) : std::next(it);
  }
  Notify();
}

void cMemoryBackend::SetLink(std::string const& name, bool up) {
  if (up) {
    m_down.erase(name);
    Notify();
  } else {
    m_down.insert(name);
    Lose([&](cRoute const& r) { return r.ifname == name; });
  }
}

}  // namespace halproxy

#include "memory_backend.h"

#include <algorithm>
#include <tuple>

namespace halproxy {

namespace {

auto Key(cRoute const& r) { return std::make_tuple(r.dst, r.prefixLen, r.metric); }

}  // namespace

cMemoryBackend::cMemoryBackend(std::set<std::string> interfaces)
    : m_interfaces(std::move(interfaces)) {}

bool cMemoryBackend::InterfaceExists(std::string const& name) const {
  if (!ValidInterfaceName(name)) return false;
  return m_interfaces.empty() || m_interfaces.count(name) != 0;
}

void cMemoryBackend::Insert(cTableRoute const& entry) {
  auto pos = std::upper_bound(
      m_table.begin(), m_table.end(), entry,
      [](cTableRoute const& a, cTableRoute const& b) { return Key(a.route) < Key(b.route); });
  m_table.insert(pos, entry);
}

cResult cMemoryBackend::Install(cRoute const& route, eInstall how) {
  if (!route.ifname.empty() && !InterfaceExists(route.ifname)) {
    return {-ENODEV, "no interface '" + route.ifname + "'"};
  }
  if (route.type == eRouteType::kUnicast && route.gateway == 0 && route.ifname.empty()) {
    return {-ENODEV, "a route needs a gateway or an interface"};
  }
  if (m_down.count(route.ifname) != 0)
    return {-ENETDOWN, "interface '" + route.ifname + "' is down"};
  auto first = std::find_if(m_table.begin(), m_table.end(),
                            [&](cTableRoute const& e) { return SameKey(e.route, route); });
  auto same = std::find_if(first, m_table.end(),
                           [&](cTableRoute const& e) { return e.ours && e.route == route; });
  if (same != m_table.end() && !SameKey(same->route, route)) same = m_table.end();
  if (how == eInstall::kAppend || first == m_table.end()) {
    if (same != m_table.end()) return {-EEXIST, ""};
    Insert({route, true});
    return {};
  }
  if (same == first) return {};
  // An identical route further down (two routes of one key exist only by
  // appending) is refused as the kernel does rather than duplicated.
  if (same != m_table.end()) return {-EEXIST, ""};
  *first = {route, true};
  return {};
}

cResult cMemoryBackend::Remove(cRoute const& route) {
  auto it = std::find_if(m_table.begin(), m_table.end(), [&](cTableRoute const& e) {
    cRoute const& r = e.route;
    return e.ours && SameKey(r, route) && r.type == route.type && r.gateway == route.gateway;
  });
  if (it != m_table.end()) m_table.erase(it);
  return {};
}

cResult cMemoryBackend::List(std::vector<cTableRoute>& routes) {
  routes = m_table;
  return {};
}

void cMemoryBackend::AddForeign(cRoute const& route) {
  Insert({route, false});
  Notify();
}

void cMemoryBackend::Lose(std::function<bool(cRoute const&)> const& which) {
  m_table.erase(std::remove_if(m_table.begin(), m_table.end(),
                               [&](cTableRoute const& e) { return which(e.route); }),
                m_table.end());
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

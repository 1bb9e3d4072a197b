#include "memory_backend.h"

#include <algorithm>
#include <tuple>

namespace halproxy {

namespace {

// The kernel's key of a route: NLM_F_REPLACE replaces the first route of the
// same key, and routes of one key keep their order of arrival.
auto Key(cRoute const& r) { return std::make_tuple(r.dst, r.prefixLen, r.metric); }

bool IsDefault(cRoute const& r) {
  return r.dst == 0 && r.prefixLen == 0 && r.type == eRouteType::kUnicast;
}

}  // namespace

cMemoryBackend::cMemoryBackend(std::set<std::string> interfaces)
    : m_interfaces(std::move(interfaces)) {}

bool cMemoryBackend::TakeFault(eOp op, int& code) {
  auto it = m_faults.find(op);
  if (it == m_faults.end()) return false;
  code = it->second.code;
  if (it->second.remaining > 0 && --it->second.remaining == 0) m_faults.erase(it);
  m_detail = "injected fault";
  return true;
}

bool cMemoryBackend::InterfaceExists(std::string const& name) const {
  if (!ValidInterfaceName(name)) return false;
  return m_interfaces.empty() || m_interfaces.count(name) != 0;
}

void cMemoryBackend::Insert(cRoute const& route) {
  auto pos = std::upper_bound(m_table.begin(), m_table.end(), route,
                              [](cRoute const& a, cRoute const& b) { return Key(a) < Key(b); });
  m_table.insert(pos, route);
}

int cMemoryBackend::ConfigureRoute(cRoute const& route) {
  m_detail.clear();
  int code = 0;
  if (TakeFault(eOp::kConfigureRoute, code)) return code;
  if (!route.ifname.empty() && !InterfaceExists(route.ifname)) {
    m_detail = "no interface '" + route.ifname + "'";
    return -ENODEV;
  }
  if (route.type == eRouteType::kUnicast && route.gateway == 0 && route.ifname.empty()) {
    m_detail = "a route needs a gateway or an interface";
    return -ENODEV;
  }
  auto first = std::find_if(m_table.begin(), m_table.end(),
                            [&](cRoute const& r) { return Key(r) == Key(route); });
  if (first == m_table.end()) {
    Insert(route);
    return 0;
  }
  if (*first == route) return 0;
  // An identical route further down (two routes of one key exist only by
  // appending) is refused as the kernel does rather than duplicated.
  for (auto it = first; it != m_table.end() && Key(*it) == Key(route); ++it) {
    if (*it == route) return -EEXIST;
  }
  *first = route;
  return 0;
}

int cMemoryBackend::RemoveRoute(cRoute const& route) {
  m_detail.clear();
  int code = 0;
  if (TakeFault(eOp::kRemoveRoute, code)) return code;
  auto it = std::find_if(m_table.begin(), m_table.end(), [&](cRoute const& r) {
    return r.dst == route.dst && r.prefixLen == route.prefixLen && r.type == route.type &&
           (route.gateway == 0 || r.gateway == route.gateway);
  });
  if (it != m_table.end()) m_table.erase(it);
  return 0;
}

int cMemoryBackend::ConfigureDefault(std::uint32_t gateway, std::uint32_t metric) {
  m_detail.clear();
  int code = 0;
  if (TakeFault(eOp::kConfigureDefault, code)) return code;
  cRoute route;
  route.gateway = gateway;
  route.metric = metric;
  if (std::find(m_table.begin(), m_table.end(), route) == m_table.end()) Insert(route);
  m_table.erase(std::remove_if(m_table.begin(), m_table.end(),
                               [&](cRoute const& r) {
                                 return IsDefault(r) && r.gateway == gateway && r.metric != metric;
                               }),
                m_table.end());
  return 0;
}

int cMemoryBackend::RemoveDefault(std::uint32_t gateway) {
  m_detail.clear();
  int code = 0;
  if (TakeFault(eOp::kRemoveDefault, code)) return code;
  m_table.erase(std::remove_if(m_table.begin(), m_table.end(),
                               [&](cRoute const& r) { return IsDefault(r) && r.gateway == gateway; }),
                m_table.end());
  return 0;
}

int cMemoryBackend::ListRoutes(std::vector<std::string>& lines) {
  m_detail.clear();
  lines.clear();
  for (auto const& r : m_table) lines.push_back(FormatRoute(r));
  return 0;
}

int cMemoryBackend::InjectFault(eOp op, int code, std::uint32_t count) {
  m_detail.clear();
  if (code == 0) {
    m_faults.erase(op);
  } else {
    m_faults[op] = cFault{code, count};
  }
  return 0;
}

}  // namespace halproxy

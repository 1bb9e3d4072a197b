// A routing table in memory with the kernel's rules for the primitives, so
// the proxy runs anywhere without privileges, and tests can put other
// parties' routes in it and take routes away as a person or a link would.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "backend.h"

namespace halproxy {

class cMemoryBackend : public IRouteBackend {
 public:
  // interfaces: the names that exist; empty = every valid interface name.
  explicit cMemoryBackend(std::set<std::string> interfaces = {});

  cResult Install(cRoute const& route, eInstall how) override;
  cResult Remove(cRoute const& route) override;
  cResult List(std::vector<cTableRoute>& routes) override;
  bool Watch(std::function<void()> changed) override {
    m_changed = std::move(changed);
    return true;
  }

  // What other parties do to the table (tests): a route that the proxy did
  // not install, added after those of its key; routes deleted behind the
  // proxy's back; a link taken down (its routes go and nothing can be
  // installed on it) or up. Each change is notified as the kernel would.
  void AddForeign(cRoute const& route);
  void Lose(std::function<bool(cRoute const&)> const& which);
  void SetLink(std::string const& name, bool up);

 private:
  bool InterfaceExists(std::string const& name) const;
  void Insert(cTableRoute const& entry);  // after every route of the same key
  void Notify() const {
    if (m_changed) m_changed();
  }

  std::set<std::string> m_interfaces;
  std::set<std::string> m_down;
  // Kept in the kernel's order: by destination, prefix and metric, and in
  // order of arrival among routes of the same key (as a multimap keeps them).
  using cKey = std::tuple<std::uint32_t, std::uint8_t, std::uint32_t>;
  std::multimap<cKey, cTableRoute> m_table;
  std::function<void()> m_changed;
};

}  // namespace halproxy

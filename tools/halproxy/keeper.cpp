#include "keeper.h"

#include <set>

#include "log.h"

namespace halproxy {

namespace {

// have is the table's form of want: the kernel fills in the interface of a
// route via a gateway, and a request without a preferred source takes any.
bool Covers(cRoute const& want, cRoute const& have) {
  return SameKey(want, have) && want.type == have.type && want.gateway == have.gateway &&
         (want.ifname.empty() || want.ifname == have.ifname) &&
         (want.source == 0 || want.source == have.source);
}

bool IsDefaultVia(cRoute const& r, std::uint32_t gateway) {
  return r.dst == 0 && r.prefixLen == 0 && r.type == eRouteType::kUnicast && r.gateway == gateway;
}

cRoute DefaultRoute(std::uint32_t gateway, std::uint32_t metric) {
  cRoute r;
  r.gateway = gateway;
  r.metric = metric;
  return r;
}

cResult NotOurs(cRoute const& theirs) {
  return {kNotOurs, "'" + FormatRoute(theirs) + "' was not installed by halproxy"};
}

}  // namespace

cRouteKeeper::cRouteKeeper(IRouteBackend& backend, unsigned keepRefreshes)
    : m_backend(backend), m_keep(keepRefreshes) {}

cResult cRouteKeeper::Load() {
  if (m_loaded) return {};
  cResult r = m_backend.List(m_listed);
  m_table.clear();
  if (r.code != 0) return r;
  for (auto const& e : m_listed) m_table.emplace(KeyOf(e.route), e);
  m_loaded = true;
  return {};
}

void cRouteKeeper::Installed(cRoute const& route, IRouteBackend::eInstall how) {
  auto range = m_table.equal_range(KeyOf(route));
  if (how == IRouteBackend::eInstall::kReplace && range.first != range.second) {
    range.first->second = cTableRoute{route, true};
  } else {
    m_table.emplace_hint(range.second, KeyOf(route), cTableRoute{route, true});
  }
}

void cRouteKeeper::Removed(cRoute const& route) {
  auto range = m_table.equal_range(KeyOf(route));
  for (auto it = range.first; it != range.second; ++it) {
    cRoute const& r = it->second.route;
    if (it->second.ours && r.type == route.type && r.gateway == route.gateway) {
      m_table.erase(it);
      return;
    }
  }
}

cResult cRouteKeeper::RemoveRoute(cRoute const& route) {
  cResult r = m_backend.Remove(route);
  if (r.code == 0) Removed(route);
  return r;
}

std::pair<cRouteKeeper::cTable::iterator, cRouteKeeper::cTable::iterator> cRouteKeeper::Prefix(
    std::uint32_t dst, std::uint8_t prefixLen) {
  return {m_table.lower_bound(cKey{dst, prefixLen, 0}),
          m_table.upper_bound(cKey{dst, prefixLen, UINT32_MAX})};
}

std::size_t cRouteKeeper::CountOurs() {
  Load();
  std::size_t n = 0;
  for (auto const& [key, e] : m_table) n += e.ours ? 1 : 0;
  return n;
}

bool cRouteKeeper::WantedRoute(cRoute const& have, std::uint64_t after) const {
  auto it = m_routes.find(KeyOf(have));
  return it != m_routes.end() && it->second.stamp > after && Covers(it->second.route, have);
}

bool cRouteKeeper::Owed(cRoute const& have, std::uint64_t after) const {
  if (WantedRoute(have, after)) return true;
  if (!IsDefaultVia(have, have.gateway)) return false;
  auto it = m_defaults.find(have.gateway);
  return it != m_defaults.end() && it->second.stamp > after && it->second.metric == have.metric;
}

void cRouteKeeper::Configure(std::vector<cRoute> const& routes, std::vector<cResult>& results,
                             void const* connection) {
  results.assign(routes.size(), cResult());
  cResult listed = Load();
  if (listed.code != 0) {
    // Without the table nobody can tell whose route a request would replace,
    // so nothing is installed; but the routes were asked for, and the sweep
    // must not take them.
    for (cRoute const& route : routes) m_routes[KeyOf(route)] = cWant{route, Stamp(), connection};
    results.assign(routes.size(), listed);
    return;
  }
  std::set<cKey> replaced;  // keys this batch installs: what the table shows there goes
  m_toInstall.clear();
  m_toInstallAt.clear();
  for (std::size_t i = 0; i < routes.size(); ++i) {
    cRoute const& route = routes[i];
    cKey const key = KeyOf(route);
    auto range = m_table.equal_range(key);
    bool present = false;
    bool refused = false;
    for (auto it = range.first; it != range.second && !refused; ++it) {
      cTableRoute const& e = it->second;
      if (!e.ours) {
        results[i] = NotOurs(e.route);
        refused = true;
      }
      present = present || Covers(route, e.route);
    }
    if (refused) continue;
    m_routes[key] = cWant{route, Stamp(), connection};
    if (present && replaced.count(key) == 0) continue;
    replaced.insert(key);
    m_toInstall.push_back(route);
    m_toInstallAt.push_back(i);
  }
  if (m_toInstall.empty()) return;
  m_backend.InstallMany(m_toInstall, IRouteBackend::eInstall::kReplace, m_installed);
  for (std::size_t k = 0; k < m_toInstallAt.size(); ++k) {
    // A backend that answers fewer routes than it was given is broken.
    cResult const r =
        k < m_installed.size() ? m_installed[k] : cResult{-EIO, "no answer from the backend"};
    if (r.code == 0) Installed(m_toInstall[k], IRouteBackend::eInstall::kReplace);
    results[m_toInstallAt[k]] = r;
  }
}

cResult cRouteKeeper::Remove(cRoute const& route) {
  std::vector<cResult> results;
  RemoveMany({route}, results);
  return results.front();
}

void cRouteKeeper::RemoveMany(std::vector<cRoute> const& routes, std::vector<cResult>& results) {
  results.assign(routes.size(), cResult());
  // The removals found go to the backend together. A request for a
  // destination that one of them has sends them first: it must see the
  // table as the ones before it left it.
  std::set<std::pair<std::uint32_t, std::uint8_t>> queued;
  m_toRemove.clear();
  m_toRemoveAt.clear();
  auto send = [&] {
    if (m_toRemove.empty()) return;
    m_backend.RemoveMany(m_toRemove, m_removed);
    for (std::size_t k = 0; k < m_toRemoveAt.size(); ++k) {
      cResult const r =
          k < m_removed.size() ? m_removed[k] : cResult{-EIO, "no answer from the backend"};
      if (r.code == 0) Removed(m_toRemove[k]);
      results[m_toRemoveAt[k]] = r;
    }
    m_toRemove.clear();
    m_toRemoveAt.clear();
    queued.clear();
  };
  for (std::size_t i = 0; i < routes.size(); ++i) {
    cRoute const& route = routes[i];
    auto matches = [&](cRoute const& r) {
      return r.dst == route.dst && r.prefixLen == route.prefixLen && r.type == route.type &&
             (route.gateway == 0 || r.gateway == route.gateway);
    };
    for (auto it = m_routes.lower_bound(cKey{route.dst, route.prefixLen, 0});
         it != m_routes.end() && it->second.route.dst == route.dst &&
         it->second.route.prefixLen == route.prefixLen;
         ++it) {
      if (matches(it->second.route)) {
        m_routes.erase(it);
        break;
      }
    }
    if (queued.count({route.dst, route.prefixLen}) != 0) send();
    cResult listed = Load();
    if (listed.code != 0) {
      results[i] = listed;
      continue;
    }
    cTableRoute const* theirs = nullptr;
    bool found = false;
    auto range = Prefix(route.dst, route.prefixLen);
    for (auto it = range.first; it != range.second && !found; ++it) {
      cTableRoute const& e = it->second;
      if (!matches(e.route)) continue;
      if (e.ours) {
        m_routes.erase(KeyOf(e.route));
        m_toRemove.push_back(e.route);
        m_toRemoveAt.push_back(i);
        queued.insert({route.dst, route.prefixLen});
        found = true;
      } else if (theirs == nullptr) {
        theirs = &e;
      }
    }
    if (!found && theirs != nullptr) results[i] = NotOurs(theirs->route);
  }
  send();
}

cResult cRouteKeeper::ConfigureDefault(std::uint32_t gateway, std::uint32_t metric,
                                       void const* connection) {
  cResult listed = Load();
  if (listed.code != 0) return listed;
  m_defaults[gateway] = cDefault{metric, Stamp(), connection};
  bool present = false;
  std::vector<cRoute> stale;
  auto range = Prefix(0, 0);
  for (auto it = range.first; it != range.second; ++it) {
    cTableRoute const& e = it->second;
    if (!e.ours || !IsDefaultVia(e.route, gateway)) continue;
    if (e.route.metric == metric) {
      present = true;
    } else if (!WantedRoute(e.route, 0)) {
      stale.push_back(e.route);  // not a custom route that happens to look like one
    }
  }
  if (!present) {
    // Appended, never NLM_F_REPLACE: two default gateways of equal metric
    // would replace each other at every refresh.
    cRoute const route = DefaultRoute(gateway, metric);
    cResult r = m_backend.Install(route, IRouteBackend::eInstall::kAppend);
    if (r.code == 0) Installed(route, IRouteBackend::eInstall::kAppend);
    if (r.code == -EEXIST) m_loaded = false;  // there after all: look again next time
    if (r.code != 0 && r.code != -EEXIST) return r;
  }
  // The gateway's old metric goes only once the new route is in, so the
  // device is never without this default gateway.
  cResult result;
  for (auto const& r : stale) {
    cResult removed = RemoveRoute(r);
    if (result.code == 0) result = removed;
  }
  return result;
}

cResult cRouteKeeper::RemoveDefault(std::uint32_t gateway) {
  m_defaults.erase(gateway);
  cResult listed = Load();
  if (listed.code != 0) return listed;
  cResult result;
  bool ours = false;
  cRoute const* theirs = nullptr;
  std::vector<cRoute> gone;
  auto range = Prefix(0, 0);
  for (auto it = range.first; it != range.second; ++it) {
    cTableRoute const& e = it->second;
    if (!IsDefaultVia(e.route, gateway)) continue;
    if (!e.ours) {
      if (theirs == nullptr) theirs = &e.route;
      continue;
    }
    ours = true;
    if (!WantedRoute(e.route, 0)) gone.push_back(e.route);
  }
  if (!ours && theirs != nullptr) return NotOurs(*theirs);
  for (auto const& r : gone) {
    cResult removed = RemoveRoute(r);
    if (result.code == 0) result = removed;
  }
  return result;
}

cResult cRouteKeeper::ListOurs(std::vector<std::string>& lines) {
  lines.clear();
  m_loaded = false;  // a diagnostic: what the table holds now
  cResult listed = Load();
  if (listed.code != 0) return listed;
  for (auto const& e : m_listed) {
    if (e.ours) lines.push_back(FormatRoute(e.route));
  }
  return {};
}

void cRouteKeeper::RefreshStart(void const* connection) {
  if (!m_hasDaemon || m_daemon != connection) {
    m_hasDaemon = true;
    m_daemon = connection;
    m_base = m_completed;
    HALPROXY_LOG(kLevelInfo, "refreshes from a new connection: nothing is swept before %u of them",
                 m_keep);
  }
  // Without notifications only a fresh read shows what went behind our back.
  if (!m_notified) m_loaded = false;
  m_inRefresh = true;
}

void cRouteKeeper::RefreshEnd(void const* connection) {
  // An end without its start (or from another connection) completes nothing.
  if (!m_hasDaemon || m_daemon != connection || !m_inRefresh) return;
  m_inRefresh = false;
  ++m_completed;
  if (m_completed - m_base >= m_keep) Sweep(m_completed - m_keep);
}

void cRouteKeeper::Closed(void const* connection) {
  // What a closed connection asked for stays until the sweep takes it, but
  // is no longer put back: somebody who removes it by hand means it.
  for (auto& [key, want] : m_routes) {
    if (want.by == connection) want.by = &kGone;
  }
  for (auto& [gateway, want] : m_defaults) {
    if (want.by == connection) want.by = &kGone;
  }
  if (!m_hasDaemon || m_daemon != connection) return;
  // A stopped daemon leaves the kernel as it was: nothing is swept until
  // another one has completed its own refreshes.
  m_hasDaemon = false;
  m_inRefresh = false;
}

void cRouteKeeper::Sweep(std::uint64_t upTo) {
  cResult listed = Load();
  if (listed.code != 0) {
    HALPROXY_LOG(kLevelWarning, "sweep skipped: cannot list the table: %d %s", listed.code,
                 listed.detail.c_str());
    return;
  }
  std::vector<cRoute> gone;
  for (auto const& [key, e] : m_table) {
    if (e.ours && !Owed(e.route, upTo)) gone.push_back(e.route);
  }
  for (cRoute const& route : gone) {
    cResult r = RemoveRoute(route);
    HALPROXY_LOG(r.code == 0 ? kLevelInfo : kLevelWarning,
                 "swept %s: not asked for in the last %u refreshes -> %s",
                 FormatRoute(route).c_str(), m_keep, ResultText(r.code, r.detail).c_str());
  }
  for (auto it = m_routes.begin(); it != m_routes.end();) {
    it = it->second.stamp <= upTo ? m_routes.erase(it) : std::next(it);
  }
  for (auto it = m_defaults.begin(); it != m_defaults.end();) {
    it = it->second.stamp <= upTo ? m_defaults.erase(it) : std::next(it);
  }
}

void cRouteKeeper::Restore() {
  if (m_routes.empty() && m_defaults.empty()) return;
  if (Load().code != 0) return;  // the next notification or refresh tries again
  m_toInstall.clear();
  for (auto const& [key, want] : m_routes) {
    if (want.by == &kGone) continue;
    auto range = m_table.equal_range(key);
    bool present = false, theirs = false;
    for (auto it = range.first; it != range.second; ++it) {
      cTableRoute const& e = it->second;
      theirs = theirs || !e.ours;
      present = present || (e.ours && Covers(want.route, e.route));
    }
    if (!present && !theirs) m_toInstall.push_back(want.route);
  }
  std::vector<cRoute> defaults;
  for (auto const& [gateway, want] : m_defaults) {
    if (want.by == &kGone) continue;
    bool present = false;
    auto range = Prefix(0, 0);
    for (auto it = range.first; it != range.second; ++it) {
      cTableRoute const& e = it->second;
      present =
          present || (e.ours && IsDefaultVia(e.route, gateway) && e.route.metric == want.metric);
    }
    if (!present) defaults.push_back(DefaultRoute(gateway, want.metric));
  }
  auto report = [this](cRoute const& route, cResult const& r) {
    std::string const what = FormatRoute(route);
    char const* level = m_restoreLog.Level(what, r.code);
    if (r.code == 0) {
      HALPROXY_LOG(kLevelInfo, "restored %s", what.c_str());
    } else {
      // Tried again at the next notification or refresh, not in a loop.
      HALPROXY_LOG(level, "cannot restore %s -> %s", what.c_str(),
                   ResultText(r.code, r.detail).c_str());
    }
  };
  if (!m_toInstall.empty()) {
    m_backend.InstallMany(m_toInstall, IRouteBackend::eInstall::kReplace, m_installed);
    for (std::size_t k = 0; k < m_toInstall.size() && k < m_installed.size(); ++k) {
      if (m_installed[k].code == 0) Installed(m_toInstall[k], IRouteBackend::eInstall::kReplace);
      report(m_toInstall[k], m_installed[k]);
    }
  }
  for (auto const& d : defaults) {
    cResult r = m_backend.Install(d, IRouteBackend::eInstall::kAppend);
    if (r.code == 0) Installed(d, IRouteBackend::eInstall::kAppend);
    report(d, r);
  }
}

}  // namespace halproxy

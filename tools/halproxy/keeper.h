// The HAL's kernel policy, once for every backend: which routes the proxy
// owes (asked for and not withdrawn), what it may touch (only the routes it
// installed), the rules for default gateways, the sweep of what the route
// manager no longer asks for, and the restoration of what went missing.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "backend.h"
#include "result_log.h"

namespace halproxy {

// A route request that would replace or remove a route that the proxy did not
// install (the kernel's connected route, a static or DHCP route, another
// daemon's) is refused with this code, and that route stays as it was.
constexpr int kNotOurs = -EADDRINUSE;

class cRouteKeeper {
 public:
  // Routes of ours that the last keepRefreshes complete refreshes of the
  // daemon's connection did not ask for are removed at the end of a refresh.
  static constexpr unsigned kDefaultKeepRefreshes = 3;

  cRouteKeeper(IRouteBackend& backend, unsigned keepRefreshes);

  // Installs routes as one batch; results[i] answers routes[i]. A route that
  // is already there is left alone.
  void Configure(std::vector<cRoute> const& routes, std::vector<cResult>& results,
                 void const* connection = nullptr);
  // Removes our first route to route's destination and prefix of its type,
  // via its gateway unless that is 0. Nothing to remove is success.
  cResult Remove(cRoute const& route);
  // Removes as Remove would, one after the other, in as few exchanges with
  // the backend as that allows; results[i] answers routes[i].
  void RemoveMany(std::vector<cRoute> const& routes, std::vector<cResult>& results);
  // Default gateways do not replace each other: any number with equal
  // metrics; a new metric for a gateway replaces its old route (new first).
  cResult ConfigureDefault(std::uint32_t gateway, std::uint32_t metric,
                           void const* connection = nullptr);
  cResult RemoveDefault(std::uint32_t gateway);
  cResult ListOurs(std::vector<std::string>& lines);

  // Refresh marks of a connection (any identity; null is one too). The last
  // connection that started a refresh is the daemon's.
  void RefreshStart(void const* connection);
  void RefreshEnd(void const* connection);
  void Closed(void const* connection);

  // Installs again what the proxy owes and the table lacks: what was asked
  // for over a connection that is still open.
  void Restore();
  // Routes of ours already in the table (from an earlier run); they are
  // swept like any other unless the daemon asks for them.
  std::size_t CountOurs();
  // The table may have changed behind the proxy's back: the next call reads
  // it afresh. notified: whether the backend reports such changes at all;
  // if not, every refresh reads the table afresh.
  void Invalidate() { m_loaded = false; }
  void SetNotified(bool notified) { m_notified = notified; }

 private:
  using cKey = std::tuple<std::uint32_t, std::uint8_t, std::uint32_t>;  // dst, prefix, metric
  struct cWant {
    cRoute route;
    std::uint64_t stamp;  // the refresh during (or before) which it was last asked for
    void const* by;       // the connection that asked last; null once it closed
  };
  struct cDefault {
    std::uint32_t metric;
    std::uint64_t stamp;
    void const* by;
  };
  static cKey KeyOf(cRoute const& r) { return cKey{r.dst, r.prefixLen, r.metric}; }
  std::uint64_t Stamp() const { return m_completed + 1; }
  // True when a route that we owe is (loosely) the table's route have: the
  // kernel fills in the interface of a route via a gateway.
  bool Owed(cRoute const& have, std::uint64_t after) const;
  bool WantedRoute(cRoute const& have, std::uint64_t after) const;
  void Sweep(std::uint64_t upTo);
  // The table as the proxy knows it: read from the backend when it may have
  // changed behind the proxy's back, otherwise kept up to date with the
  // proxy's own changes, so a request costs no dump of the whole table.
  cResult Load();
  void Installed(cRoute const& route, IRouteBackend::eInstall how);
  void Removed(cRoute const& route);
  cResult RemoveRoute(cRoute const& route);         // from the backend and the copy
  using cTable = std::multimap<cKey, cTableRoute>;  // by key, in order of arrival within one
  // The entries of destination dst/prefix, whatever their metric.
  std::pair<cTable::iterator, cTable::iterator> Prefix(std::uint32_t dst, std::uint8_t prefixLen);

  IRouteBackend& m_backend;
  unsigned m_keep;
  std::map<cKey, cWant> m_routes;                // one per key, as in the kernel
  std::map<std::uint32_t, cDefault> m_defaults;  // by gateway
  std::uint64_t m_completed = 0;                 // complete refreshes, of every connection
  std::uint64_t m_base = 0;                      // m_completed when the daemon's connection began
  bool m_hasDaemon = false;
  void const* m_daemon = nullptr;
  bool m_inRefresh = false;
  // Connections are told apart by identity; a closed one's wants keep this.
  static constexpr char kGone = 0;
  std::vector<cTableRoute> m_listed;  // reused by every read
  cTable m_table;
  bool m_loaded = false;
  bool m_notified = false;
  std::vector<cRoute> m_toInstall;
  std::vector<std::size_t> m_toInstallAt;
  std::vector<cResult> m_installed;
  std::vector<cRoute> m_toRemove;
  std::vector<std::size_t> m_toRemoveAt;
  std::vector<cResult> m_removed;
  cResultLog m_restoreLog;
};

}  // namespace halproxy

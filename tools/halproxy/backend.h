// Where the proxy's routes go: the kernel (netlink) or a table in memory.
// A backend offers the kernel's primitives and nothing more; what to install,
// what the proxy may touch and what to sweep is decided once, in the proxy.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "route.h"

namespace halproxy {

// The answer to one primitive: 0 or a negative errno value, as the kernel
// gives them, and why beyond the errno (the kernel's own text) when known.
struct cResult {
  int code = 0;
  std::string detail;
};

// A route of the main table and whether the proxy installed it (by its
// protocol number).
struct cTableRoute {
  cRoute route;
  bool ours = false;
};

class IRouteBackend {
 public:
  // kReplace: the kernel's NLM_F_REPLACE, which takes the place of the first
  // route of the same destination, prefix and metric, whoever made it, and
  // leaves an identical first route as it is. kAppend: added after the routes
  // of that key; an identical one already there is -EEXIST.
  enum class eInstall { kReplace, kAppend };

  virtual ~IRouteBackend() = default;

  [[nodiscard]] virtual cResult Install(cRoute const& route, eInstall how) = 0;
  // Installs routes in order, each as Install would; results[i] answers
  // routes[i]. A backend that can hand the kernel many routes in one
  // exchange overrides it.
  virtual void InstallMany(std::vector<cRoute> const& routes, eInstall how,
                           std::vector<cResult>& results) {
    results.clear();
    for (cRoute const& route : routes) results.push_back(Install(route, how));
  }
  // Removes exactly this route of ours (destination, prefix, type, gateway,
  // metric); one that is not there is success.
  [[nodiscard]] virtual cResult Remove(cRoute const& route) = 0;
  // Removes routes in order, each as Remove would; results[i] answers
  // routes[i]. Overridden as InstallMany is.
  virtual void RemoveMany(std::vector<cRoute> const& routes, std::vector<cResult>& results) {
    results.clear();
    for (cRoute const& route : routes) results.push_back(Remove(route));
  }
  // The main table's IPv4 routes in table order, ours flagged.
  [[nodiscard]] virtual cResult List(std::vector<cTableRoute>& routes) = 0;
  // changed runs (from the loop) whenever routes of ours may have gone
  // behind the proxy's back or may be installable again: a route of ours
  // deleted by somebody else, a link or an address that came or went, lost
  // notifications. False when the backend has no notifications (then it
  // never calls changed).
  virtual bool Watch(std::function<void()> changed) {
    (void)changed;
    return false;
  }
};

}  // namespace halproxy

// Where the proxy's routes go: the kernel (netlink) or a table in memory.
// Results are 0 or a negative errno value, as the kernel gives them.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "route.h"

namespace halproxy {

class IRouteBackend {
 public:
  enum class eOp { kConfigureRoute, kRemoveRoute, kConfigureDefault, kRemoveDefault };

  virtual ~IRouteBackend() = default;

  // Installs route, replacing one with the same destination, prefix and
  // metric; an identical route already installed is left as it is.
  virtual int ConfigureRoute(cRoute const& route) = 0;
  // Installs routes in order, each as ConfigureRoute would; results[i] and
  // details[i] (empty when there is nothing to add) answer routes[i]. A
  // backend that can hand the kernel many routes in one exchange overrides it.
  virtual void ConfigureRoutes(std::vector<cRoute> const& routes, std::vector<int>& results,
                               std::vector<std::string>& details) {
    results.clear();
    details.clear();
    for (cRoute const& route : routes) {
      results.push_back(ConfigureRoute(route));
      details.push_back(results.back() != 0 ? LastDetail() : std::string());
    }
  }
  // Removes the first of our routes of route's type to its destination and
  // prefix (via its gateway unless that is 0). Nothing to remove is success.
  virtual int RemoveRoute(cRoute const& route) = 0;
  // Makes gateway a default gateway with metric; other default gateways stay,
  // also with the same metric, and ours via gateway with another metric go.
  virtual int ConfigureDefault(std::uint32_t gateway, std::uint32_t metric) = 0;
  // Removes our default routes via gateway, whatever their metric.
  virtual int RemoveDefault(std::uint32_t gateway) = 0;
  // Our routes, one FormatRoute line each, in table order.
  virtual int ListRoutes(std::vector<std::string>& lines) = 0;
  // The next count calls of op (0 = all until cleared) answer code; code 0
  // clears. Only for test backends.
  virtual int InjectFault(eOp op, int code, std::uint32_t count) {
    (void)op, (void)code, (void)count;
    return -EOPNOTSUPP;
  }
  // Why the last call failed, beyond its errno (e.g. the kernel's own text);
  // empty when there is nothing to add.
  virtual std::string LastDetail() const { return {}; }
};

}  // namespace halproxy

// Fault injection for tests, around any backend: chosen primitives answer a
// chosen error instead of reaching the table. Only built into the proxy when
// it is started with --enable-test-ops.
#pragma once

#include <map>

#include "backend.h"

namespace halproxy {

class cFaultBackend : public IRouteBackend {
 public:
  enum class eFault { kReplace, kAppend, kRemove };

  explicit cFaultBackend(IRouteBackend& inner) : m_inner(inner) {}

  // The next count calls of what (0 = all until cleared) answer code and
  // change nothing; code 0 clears.
  void Inject(eFault what, int code, std::uint32_t count);

  cResult Install(cRoute const& route, eInstall how) override;
  void InstallMany(std::vector<cRoute> const& routes, eInstall how,
                   std::vector<cResult>& results) override;
  cResult Remove(cRoute const& route) override;
  void RemoveMany(std::vector<cRoute> const& routes, std::vector<cResult>& results) override;
  cResult List(std::vector<cTableRoute>& routes) override { return m_inner.List(routes); }
  bool Watch(std::function<void()> changed) override { return m_inner.Watch(std::move(changed)); }

 private:
  struct cFault {
    int code = 0;
    std::uint32_t remaining = 0;  // 0: until cleared
  };
  static eFault Of(eInstall how) {
    return how == eInstall::kReplace ? eFault::kReplace : eFault::kAppend;
  }
  bool Take(eFault what, cResult& result);

  IRouteBackend& m_inner;
  std::map<eFault, cFault> m_faults;
};

}  // namespace halproxy

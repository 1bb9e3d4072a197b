#include "fault_backend.h"

namespace halproxy {

void cFaultBackend::Inject(eFault what, int code, std::uint32_t count) {
  if (code == 0) {
    m_faults.erase(what);
  } else {
    m_faults[what] = cFault{code, count};
  }
}

bool cFaultBackend::Take(eFault what, cResult& result) {
  auto it = m_faults.find(what);
  if (it == m_faults.end()) return false;
  result = {it->second.code, "injected fault"};
  if (it->second.remaining > 0 && --it->second.remaining == 0) m_faults.erase(it);
  return true;
}

cResult cFaultBackend::Install(cRoute const& route, eInstall how) {
  cResult result;
  if (Take(Of(how), result)) return result;
  return m_inner.Install(route, how);
}

void cFaultBackend::InstallMany(std::vector<cRoute> const& routes, eInstall how,
                                std::vector<cResult>& results) {
  if (m_faults.count(Of(how)) == 0) {
    m_inner.InstallMany(routes, how, results);
    return;
  }
  results.clear();
  for (cRoute const& route : routes) results.push_back(Install(route, how));
}

cResult cFaultBackend::Remove(cRoute const& route) {
  cResult result;
  if (Take(eFault::kRemove, result)) return result;
  return m_inner.Remove(route);
}

void cFaultBackend::RemoveMany(std::vector<cRoute> const& routes, std::vector<cResult>& results) {
  if (m_faults.count(eFault::kRemove) == 0) {
    m_inner.RemoveMany(routes, results);
    return;
  }
  results.clear();
  for (cRoute const& route : routes) results.push_back(Remove(route));
}

}  // namespace halproxy

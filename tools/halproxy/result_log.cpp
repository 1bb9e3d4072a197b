#include "result_log.h"

#include <cstring>

#include "log.h"

namespace halproxy {

char const* cResultLog::Level(std::string const& what, int rc) {
  auto it = m_failing.find(what);
  if (rc == 0) {
    if (it == m_failing.end()) return kLevelDebug;
    m_failing.erase(it);
    return kLevelInfo;  // it works again
  }
  if (it != m_failing.end()) {
    if (it->second == rc) return kLevelDebug;
    it->second = rc;
    return kLevelInfo;
  }
  if (m_failing.size() >= kMaxRemembered) m_failing.clear();
  m_failing.emplace(what, rc);
  return kLevelInfo;
}

std::string ResultText(int rc, std::string const& detail) {
  std::string text = std::to_string(rc);
  std::string why = rc < 0 ? std::strerror(-rc) : "";
  if (!detail.empty()) why += (why.empty() ? "" : ": ") + detail;
  if (!why.empty()) text += " (" + why + ")";
  return text;
}

}  // namespace halproxy

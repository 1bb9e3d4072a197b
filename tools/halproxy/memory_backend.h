// A routing table in memory with the kernel's rules as the netlink backend
// uses them, so the proxy runs anywhere without privileges and tests can see
// its table and make it fail on purpose.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "backend.h"

namespace halproxy {

class cMemoryBackend : public IRouteBackend {
 public:
  // interfaces: the names that exist; empty = every valid interface name.
  explicit cMemoryBackend(std::set<std::string> interfaces = {});

  int ConfigureRoute(cRoute const& route) override;
  int RemoveRoute(cRoute const& route) override;
  int ConfigureDefault(std::uint32_t gateway, std::uint32_t metric) override;
  int RemoveDefault(std::uint32_t gateway) override;
  int ListRoutes(std::vector<std::string>& lines) override;
  int InjectFault(eOp op, int code, std::uint32_t count) override;
  std::string LastDetail() const override { return m_detail; }

 private:
  struct cFault {
    int code = 0;
    std::uint32_t remaining = 0;  // 0: until cleared
  };
  bool TakeFault(eOp op, int& code);
  bool InterfaceExists(std::string const& name) const;
  void Insert(cRoute const& route);  // after every route of the same key, as NLM_F_APPEND

  std::set<std::string> m_interfaces;
  // Kept in the kernel's order: by destination, prefix and metric, and in
  // order of arrival among routes of the same key.
  std::vector<cRoute> m_table;
  std::map<eOp, cFault> m_faults;
  std::string m_detail;
};

}  // namespace halproxy

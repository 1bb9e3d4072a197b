// The proxy's route semantics on the in-memory table (see semantics.h).
#include <arpa/inet.h>

#include <memory>
#include <sstream>

#include "kest/loop.h"
#include "memory_backend.h"
#include "semantics.h"

namespace halproxy_semantics {
namespace {

std::uint32_t Ip(std::string const& text) {
  in_addr a{};
  inet_pton(AF_INET, text.c_str(), &a);
  return ntohl(a.s_addr);
}

class cMemoryWorld : public IWorld {
 public:
  halproxy::IRouteBackend& Backend() override { return m_backend; }
  void Do(std::string const& action) override {
    std::istringstream in(action);
    std::string what, arg, dev;
    in >> what >> arg >> dev >> dev;
    if (what == "up" || what == "down") return m_backend.SetLink(arg, what == "up");
    halproxy::cRoute r;
    r.dst = Ip(arg.substr(0, arg.find('/')));
    r.prefixLen = static_cast<std::uint8_t>(std::stoi(arg.substr(arg.find('/') + 1)));
    r.ifname = dev;
    if (what == "foreign") return m_backend.AddForeign(r);
    m_backend.Lose([&](halproxy::cRoute const& x) { return SameKey(x, r); });
  }

 private:
  halproxy::cMemoryBackend m_backend{{"veth0", "veth1"}};
};

TEST(MemorySemantics, TableAfterRequests) {
  kest::ResetLoop();
  RunCases([] { return std::make_unique<cMemoryWorld>(); });
  kest::ResetLoop();
}

}  // namespace
}  // namespace halproxy_semantics

// The proxy's route semantics on the in-memory table (see semantics.h).
#include <memory>
#include <sstream>

#include "kest/loop.h"
#include "memory_backend.h"
#include "semantics.h"

namespace halproxy_semantics {
namespace {

class cMemoryWorld : public IWorld {
 public:
  halproxy::IRouteBackend& Backend() override { return m_backend; }
  void Do(std::string const& action) override {
    std::istringstream in(action);
    std::string what, arg, dev;
    in >> what >> arg >> dev >> dev;
    if (what == "up" || what == "down") return m_backend.SetLink(arg, what == "up");
    halproxy::cRoute r =
        Route(arg.substr(0, arg.find('/')).c_str(),
              std::uint8_t(std::stoi(arg.substr(arg.find('/') + 1))), "0.0.0.0", dev.c_str());
    if (what == "foreign") return m_backend.AddForeign(r);
    m_backend.Lose([&](halproxy::cRoute const& x) { return SameKey(x, r); });
  }

 private:
  halproxy::cMemoryBackend m_backend{{"veth0", "veth1"}};
};

// Removals that reach the backend together must each see the table as the
// ones before them left it: two asking for one destination take both routes.
TEST(MemorySemantics, RemovalsOfOneBatchActAsOneAfterTheOther) {
  halproxy::cMemoryBackend backend{{"veth0"}};
  halproxy::cRouteKeeper keeper(backend, 3);
  auto route = [](char const* net, std::uint32_t metric) {
    return Route(net, 16, kGw0, "", metric);
  };
  std::vector<halproxy::cResult> results;
  keeper.Configure({route("10.1.0.0", 0), route("10.1.0.0", 5), route("10.2.0.0", 0)}, results);
  backend.AddForeign(route("10.3.0.0", 0));
  keeper.Invalidate();  // as the proxy does when notified
  keeper.RemoveMany(
      {route("10.1.0.0", 0), route("10.3.0.0", 0), route("10.1.0.0", 0), route("10.9.0.0", 0)},
      results);
  EXPECT_EQ((std::vector<int>{0, halproxy::kNotOurs, 0, 0}), Codes(results));
  Lines lines;
  ASSERT_EQ(0, keeper.ListOurs(lines).code);
  EXPECT_EQ((Lines{"10.2.0.0/16 via 192.0.2.1 metric 0"}), lines);
}

TEST(MemorySemantics, TableAfterRequests) {
  kest::ResetLoop();
  RunCases([] { return std::make_unique<cMemoryWorld>(); });
  kest::ResetLoop();
}

}  // namespace
}  // namespace halproxy_semantics

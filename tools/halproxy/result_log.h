// Results of requests that repeat (the route manager asks for everything
// every 5 s): a failure is logged at info when a request's result changes and
// at debug while it stays the same, so a route that keeps failing costs one
// line, not one per refresh.
#pragma once

#include <string>
#include <unordered_map>

namespace halproxy {

class cResultLog {
 public:
  // The level to log what's result rc at; remembers rc for next time.
  char const* Level(std::string const& what, int rc);
  // Whether no request is failing: a success then changes nothing.
  bool Empty() const { return m_failing.empty(); }

 private:
  // Only requests whose last result was a failure, bounded: past the bound
  // the memory starts afresh, which costs one more info line per request.
  static constexpr std::size_t kMaxRemembered = 4096;
  std::unordered_map<std::string, int> m_failing;
};

// "0", "-19 (No such device: no interface 'eth9')".
std::string ResultText(int rc, std::string const& detail);

}  // namespace halproxy

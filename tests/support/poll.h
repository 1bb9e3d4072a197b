// Waiting in tests, for this thread's kest loop or another process to bring
// something about, and the scratch files they leave.
#pragma once

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include "kest/loop.h"

namespace testsupport {

// Long enough for a loaded CI machine, short enough that a hang fails fast.
constexpr int kPumpTimeoutMs = 5000, kPollTimeoutMs = 10000;

// Calls step() until done() holds or timeoutMs has passed.
inline bool Until(std::function<bool()> const& done, int timeoutMs,
                  std::function<void()> const& step) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (; !done(); step())
    if (std::chrono::steady_clock::now() >= deadline) return false;
  return true;
}
// Turns this thread's kest loop until done() holds.
inline bool PumpUntil(std::function<bool()> const& done, int timeoutMs = kPumpTimeoutMs) {
  return Until(done, timeoutMs, [] { kest::Loop().RunOnce(5); });
}
// Turns the loop about 100 ms longer, for anything that should not come.
inline void Settle() {
  for (int i = 0; i < 20; ++i) kest::Loop().RunOnce(5);
}
// Checks cond every 20 ms, sleeping in between, until it holds.
inline bool PollUntil(std::function<bool()> const& cond, int timeoutMs = kPollTimeoutMs) {
  return Until(cond, timeoutMs, [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
}

inline std::string ReadFile(std::string const& path) {  // "" when there is none
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A fresh directory /tmp/PREFIX-XXXXXX, removed with all it holds.
class cTempDir {
 public:
  explicit cTempDir(std::string const& prefix) : m_path("/tmp/" + prefix + "-XXXXXX") {
    if (mkdtemp(m_path.data()) == nullptr) m_path = "/nonexistent";
  }
  ~cTempDir() {
    std::error_code ignored;
    if (m_path != "/nonexistent") std::filesystem::remove_all(m_path, ignored);
  }
  cTempDir(cTempDir const&) = delete;
  std::string const& Path() const { return m_path; }
  std::string File(std::string const& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

}  // namespace testsupport

#pragma once
#include <cstdint>

namespace kest {

// Monotonic milliseconds. Timers read time only through this so tests can
// drive a manual clock instead of sleeping.
class IClock {
 public:
  virtual ~IClock() = default;
  virtual std::uint64_t NowMs() const = 0;
};

class cSteadyClock : public IClock {
 public:
  std::uint64_t NowMs() const override;
};

class cManualClock : public IClock {
 public:
  std::uint64_t NowMs() const override { return m_now; }
  void Advance(std::uint64_t ms) { m_now += ms; }

 private:
  std::uint64_t m_now = 1000;
};

}  // namespace kest

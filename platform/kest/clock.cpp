#include "kest/clock.h"

#include <time.h>

namespace kest {

std::uint64_t cSteadyClock::NowMs() const {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000u +
         static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
}

}  // namespace kest

#include "larkspan/platform/base/Clock.h"

#include <atomic>
#include <cmath>

namespace larkspan::platform {
namespace {

class SystemClock final : public Clock {
 public:
  MonotonicTime monotonicNow() const override { return std::chrono::steady_clock::now().time_since_epoch(); }
  WallTime wallNow() const override { return std::chrono::system_clock::now().time_since_epoch(); }
};

std::atomic<Clock*>& installedClock() {
  static auto* const installed = new std::atomic<Clock*>(&Clock::system());
  return *installed;
}

}  // namespace

Clock& Clock::current() { return *installedClock().load(std::memory_order_acquire); }

Clock& Clock::system() {
  static auto* const clock = new SystemClock;
  return *clock;
}

Clock* Clock::install(Clock* clock) { return installedClock().exchange(clock ? clock : &system()); }

std::chrono::nanoseconds nanosecondsFromSeconds(double seconds) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  const double product = seconds * 1e9;
  if (std::isnan(product)) return std::chrono::nanoseconds::zero();
  if (product >= kLimit) return std::chrono::nanoseconds::max();
  if (product < -kLimit) return std::chrono::nanoseconds::min();
  return std::chrono::nanoseconds(static_cast<std::chrono::nanoseconds::rep>(product));
}

}  // namespace larkspan::platform

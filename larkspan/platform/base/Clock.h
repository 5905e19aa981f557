#pragma once

#include <chrono>

namespace larkspan::platform {

/// Monotonic nanoseconds since an arbitrary start: what deadlines are computed in.
using MonotonicTime = std::chrono::nanoseconds;
/// Nanoseconds since 1970-01-01T00:00:00Z.
using WallTime = std::chrono::nanoseconds;

/// The only source of time: wall and monotonic time are read here and nowhere else, so that a test may
/// replace both.
/// Thread: any.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual MonotonicTime monotonicNow() const = 0;
  virtual WallTime wallNow() const = 0;

  /// The installed clock: the system's unless a test installed another.
  static Clock& current();
  /// The system's clock, whatever is installed.
  static Clock& system();
  /// Makes `clock` (null: the system's) the current one and returns what was current. The caller keeps a
  /// clock alive while it is installed; dispatch/ManualClock.h does both.
  static Clock* install(Clock* clock);

 protected:
  Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
};

/// Seconds as nanoseconds, truncated toward zero. Beyond 64 bits it saturates; not-a-number is 0.
std::chrono::nanoseconds nanosecondsFromSeconds(double seconds);

}  // namespace larkspan::platform

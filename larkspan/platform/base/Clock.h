#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

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
};

}  // namespace larkspan::platform

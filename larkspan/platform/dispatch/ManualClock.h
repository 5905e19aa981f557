#pragma once

#include "larkspan/platform/base/Clock.h"

#include <atomic>
#include <memory>

namespace larkspan::platform {

class TimerHeap;

/// A clock for tests that stands still until it is told how much time has passed. It is the current clock
/// while it lives, and timers and delayed tasks that are made meanwhile fire only through `advance()`;
/// earlier ones stay with the clock they were made under. When it goes, what still waits for it is dropped.
/// Thread: any. It must go when nothing that reads the clock runs any more, and in the reverse order of
///         creation if there are several.
class ManualClock final : public Clock {
 public:
  /// `wall` is the time it starts at, 2024-01-01T00:00:00Z unless given. Monotonic time starts at one hour.
  explicit ManualClock(WallTime wall = std::chrono::seconds(1704067200));
  ~ManualClock() override;

  MonotonicTime monotonicNow() const override { return MonotonicTime(monotonic_.load()); }
  WallTime wallNow() const override { return monotonicNow() + wallOffset_; }

  /// Lets time pass: stops at each due timer in order, submits it, and goes on once all queues are idle.
  /// Returns when the work due has run and the queues are idle. Called on the initial thread it runs the
  /// main queue's tasks itself; elsewhere somebody else must. Work that is not on a queue is not waited for.
  /// Throws std::logic_error, naming a busy queue, when the queues are not idle after 10 seconds of real time
  /// or time stands still that long because timers keep coming due; and when it is called from a task.
  void advance(std::chrono::nanoseconds duration);

 private:
  const WallTime wallOffset_;
  std::atomic<MonotonicTime::rep> monotonic_;
  const std::shared_ptr<TimerHeap> heap_;
  std::shared_ptr<TimerHeap> previousHeap_;
  Clock* previousClock_;
};

}  // namespace larkspan::platform

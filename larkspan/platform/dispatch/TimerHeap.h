#pragma once

#include "larkspan/platform/base/Clock.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace larkspan::platform {

/// Tasks that wait for their time, ordered by it. The system's heap is served by the one timer thread; a
/// manual clock brings a heap of its own and serves it. Work stays with the heap that was current when it was
/// added.
///
/// Leeway: a task may be due later by its leeway if it then joins another; see `nextWake()`.
class TimerHeap {
 public:
  using Nanoseconds = std::chrono::nanoseconds;

  /// Names one waiting task; a default one names none.
  struct Ticket {
    MonotonicTime deadline{};
    uint64_t sequence = 0;
    auto operator<=>(const Ticket&) const = default;
  };

  explicit TimerHeap(const Clock& clock) : clock_(&clock) {}
  static std::shared_ptr<TimerHeap> current();
  /// Makes `heap` (null: the system's) the current one and returns what was current.
  static std::shared_ptr<TimerHeap> install(std::shared_ptr<TimerHeap> heap);

  MonotonicTime now() const;
  /// Now plus `delay`, which counts as 0 when negative; saturates.
  MonotonicTime deadlineIn(Nanoseconds delay) const;

  Ticket add(MonotonicTime deadline, Nanoseconds leeway, std::shared_ptr<DispatchQueue> queue, Task task);
  void remove(const Ticket& ticket);

  /// When to submit next, if that is not after `limit`: the latest deadline that can be waited for without
  /// exhausting the leeway of any task due before it, so that all of those are submitted in one go.
  std::optional<MonotonicTime> nextWake(MonotonicTime limit) const;
  /// Submits what is due to its queues, in the order of the deadlines.
  void submitDue(MonotonicTime now);
  /// Drops all waiting tasks, and those that are added from now on: the clock is going away.
  void close();

 private:
  struct Entry {
    Nanoseconds leeway;
    std::shared_ptr<DispatchQueue> queue;
    Task task;
  };

  static std::shared_ptr<TimerHeap>& system();
  std::optional<MonotonicTime> nextWakeLocked(MonotonicTime limit) const;
  void serve();

  mutable std::mutex mutex_;
  const Clock* clock_;  // Null once closed.
  std::map<Ticket, Entry> entries_;
  uint64_t lastSequence_ = 0;
  MonotonicTime sleepsUntil_ = MonotonicTime::min();  // The timer thread, while it sleeps.
  std::condition_variable wake_;
};

}  // namespace larkspan::platform

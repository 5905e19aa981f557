#pragma once

#include "larkspan/platform/dispatch/TimerHeap.h"

#include <chrono>
#include <memory>
#include <mutex>

namespace larkspan::platform {

/// Runs a handler on a queue once a delay has passed, and again at each interval if it repeats. The times are
/// those of the clock that was current when the timer was made. A timer never fires early. With leeway it may
/// fire later, by as much, in order to join another timer; alone it fires at its time. Whatever holds a queue
/// up may make it later still; a repeating timer then leaves out the times it missed and keeps to its grid. A
/// handler never overlaps itself.
/// Owner:  the caller: dropping the last reference cancels. While the handler runs the timer is held, so that
///         the handler may drop it.
/// Thread: the handler runs as a task of the queue; every function may be called from any thread.
class Timer : public std::enable_shared_from_this<Timer> {
 public:
  static constexpr std::chrono::nanoseconds kNever = std::chrono::nanoseconds::max();

  /// Makes a timer that is already running. `interval` is `kNever` for one that fires once; one that is not
  /// positive counts as a nanosecond. A negative `delay` or `leeway` counts as 0.
  static std::shared_ptr<Timer> make(std::shared_ptr<DispatchQueue> queue, std::chrono::nanoseconds delay,
                                     std::chrono::nanoseconds interval, std::chrono::nanoseconds leeway,
                                     Task handler);
  ~Timer();

  /// The handler does not start any more; one that runs on another thread meanwhile runs to its end. Called
  /// from a task of the timer's serial queue, the handler has ended or never runs. Idempotent. Drops the
  /// handler and what it captured, as soon as it does not run.
  void cancel();
  bool isCancelled() const;

 private:
  Timer(std::shared_ptr<DispatchQueue> queue, std::chrono::nanoseconds interval,
        std::chrono::nanoseconds leeway, Task handler);
  void arm();
  void fire();

  const std::shared_ptr<TimerHeap> heap_;
  const std::shared_ptr<DispatchQueue> queue_;
  const std::chrono::nanoseconds interval_;
  const std::chrono::nanoseconds leeway_;

  mutable std::mutex mutex_;
  MonotonicTime deadline_{};
  TimerHeap::Ticket ticket_;
  bool cancelled_ = false;
  bool running_ = false;
  Task handler_;
};

}  // namespace larkspan::platform

#include "larkspan/platform/dispatch/Timer.h"

#include <algorithm>

namespace larkspan::platform {

std::shared_ptr<Timer> Timer::make(std::shared_ptr<DispatchQueue> queue, std::chrono::nanoseconds delay,
                                   std::chrono::nanoseconds interval, std::chrono::nanoseconds leeway,
                                   Task handler) {
  std::shared_ptr<Timer> timer(new Timer(std::move(queue), interval, leeway, std::move(handler)));
  const std::lock_guard lock(timer->mutex_);
  timer->deadline_ = timer->heap_->deadlineIn(delay);
  timer->arm();
  return timer;
}

Timer::Timer(std::shared_ptr<DispatchQueue> queue, std::chrono::nanoseconds interval,
             std::chrono::nanoseconds leeway, Task handler)
    : heap_(TimerHeap::current()),
      queue_(std::move(queue)),
      interval_(std::max(interval, std::chrono::nanoseconds(1))),
      leeway_(leeway),
      handler_(std::move(handler)) {}

Timer::~Timer() { heap_->remove(ticket_); }

void Timer::arm() {
  ticket_ = heap_->add(deadline_, leeway_, queue_, [weak = weak_from_this()] {
    if (const auto timer = weak.lock()) timer->fire();
  });
}

void Timer::fire() {
  {
    const std::lock_guard lock(mutex_);
    if (cancelled_) return;
    running_ = true;
  }
  handler_();

  Task dropped;  // Destroyed after the lock is released.
  const std::lock_guard lock(mutex_);
  running_ = false;
  if (cancelled_) {
    dropped = std::move(handler_);
  } else if (interval_ != kNever) {
    const auto late = std::max(heap_->now() - deadline_, MonotonicTime::zero());
    const auto steps = late / interval_ + 1;
    if (interval_ > (MonotonicTime::max() - deadline_) / steps) return;  // Beyond the end of time.
    deadline_ += interval_ * steps;
    arm();
  }
}

void Timer::cancel() {
  Task dropped;
  const std::lock_guard lock(mutex_);
  cancelled_ = true;
  heap_->remove(ticket_);
  if (!running_) dropped = std::move(handler_);
}

bool Timer::isCancelled() const {
  const std::lock_guard lock(mutex_);
  return cancelled_;
}

}  // namespace larkspan::platform

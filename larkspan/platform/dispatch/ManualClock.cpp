#include "larkspan/platform/dispatch/ManualClock.h"

#include "larkspan/platform/dispatch/MainQueue.h"
#include "larkspan/platform/dispatch/Thread.h"
#include "larkspan/platform/dispatch/TimerHeap.h"

#include <stdexcept>

namespace larkspan::platform {
namespace {

constexpr MonotonicTime kStart = std::chrono::hours(1);
constexpr auto kPatience = std::chrono::seconds(10);

using RealTime = std::chrono::steady_clock;

bool othersIdle(std::string& busy) {
  const MainQueue& mainQueue = MainQueue::shared();
  if (!mainQueue.isIdle()) {
    busy = mainQueue.label();
    return false;
  }
  busy = "a queue in sync";
  return SerialQueue::inlineRuns.load() == 0;
}

// Runs or waits for everything that is queued.
void settle(RealTime::time_point deadline) {
  MainQueue& mainQueue = MainQueue::shared();
  IdleSignal::Listener listener;
  for (;;) {
    if (isInitialThread()) mainQueue.drain();
    std::string busy;
    if (WorkerPool::allIdle(busy, othersIdle)) return;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - RealTime::now());
    if (left.count() <= 0)
      throw std::logic_error("the manual clock waits for a queue that does not become idle: " + busy);
    listener.wait(isInitialThread() ? mainQueue.descriptor() : -1, left);
  }
}

}  // namespace

ManualClock::ManualClock(WallTime wall)
    : wallOffset_(wall - kStart),
      monotonic_(kStart.count()),
      heap_(std::make_shared<TimerHeap>(*this)),
      previousHeap_(TimerHeap::install(heap_)),
      previousClock_(Clock::install(this)) {}

ManualClock::~ManualClock() {
  Clock::install(previousClock_);
  TimerHeap::install(std::move(previousHeap_));
  heap_->close();
}

void ManualClock::advance(std::chrono::nanoseconds duration) {
  if (RunningFrame::innermost) throw std::logic_error("a manual clock is advanced from a task");
  const MonotonicTime end = heap_->deadlineIn(duration);
  auto deadline = RealTime::now() + kPatience;
  settle(deadline);
  while (const auto wake = heap_->nextWake(end)) {
    if (*wake > monotonicNow()) {
      monotonic_ = wake->count();
      deadline = RealTime::now() + kPatience;
    } else if (RealTime::now() > deadline) {
      throw std::logic_error("the manual clock stands still: timers keep coming due");
    }
    heap_->submitDue(monotonicNow());
    settle(deadline);
  }
  monotonic_ = end.count();
}

}  // namespace larkspan::platform

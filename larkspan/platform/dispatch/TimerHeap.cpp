#include "larkspan/platform/dispatch/TimerHeap.h"

#include "larkspan/platform/dispatch/Thread.h"

#include <algorithm>

namespace larkspan::platform {
namespace {

MonotonicTime plus(MonotonicTime time, std::chrono::nanoseconds more) {
  return time > MonotonicTime::max() - more ? MonotonicTime::max() : time + more;
}

struct Installed {
  std::mutex mutex;
  std::shared_ptr<TimerHeap> heap;  // Null: the system's.
};

Installed& installed() {
  static auto* const state = new Installed;
  return *state;
}

}  // namespace

std::shared_ptr<TimerHeap>& TimerHeap::system() {
  static auto* const heap = [] {
    auto* const made = new std::shared_ptr<TimerHeap>(new TimerHeap(Clock::system()));
    startThread("lks-timer", [served = made->get()] { served->serve(); });
    return made;
  }();
  return *heap;
}

std::shared_ptr<TimerHeap> TimerHeap::current() {
  Installed& state = installed();
  const std::lock_guard lock(state.mutex);
  return state.heap ? state.heap : system();
}

std::shared_ptr<TimerHeap> TimerHeap::install(std::shared_ptr<TimerHeap> heap) {
  Installed& state = installed();
  const std::lock_guard lock(state.mutex);
  return std::exchange(state.heap, std::move(heap));
}

MonotonicTime TimerHeap::now() const {
  const std::lock_guard lock(mutex_);
  return clock_ ? clock_->monotonicNow() : MonotonicTime::zero();
}

MonotonicTime TimerHeap::deadlineIn(Nanoseconds delay) const {
  return plus(now(), std::max(delay, Nanoseconds::zero()));
}

TimerHeap::Ticket TimerHeap::add(MonotonicTime deadline, Nanoseconds leeway,
                                 std::shared_ptr<DispatchQueue> queue, Task task) {
  const std::lock_guard lock(mutex_);
  if (!clock_) return {};
  const Ticket ticket{deadline, ++lastSequence_};
  entries_.emplace(ticket, Entry{std::max(leeway, Nanoseconds::zero()), std::move(queue), std::move(task)});
  if (deadline < sleepsUntil_) wake_.notify_one();
  return ticket;
}

void TimerHeap::remove(const Ticket& ticket) {
  std::map<Ticket, Entry>::node_type removed;  // Destroyed after the lock is released.
  const std::lock_guard lock(mutex_);
  removed = entries_.extract(ticket);
}

std::optional<MonotonicTime> TimerHeap::nextWake(MonotonicTime limit) const {
  const std::lock_guard lock(mutex_);
  return nextWakeLocked(limit);
}

std::optional<MonotonicTime> TimerHeap::nextWakeLocked(MonotonicTime limit) const {
  std::optional<MonotonicTime> wake;
  for (const auto& [ticket, entry] : entries_) {
    if (ticket.deadline > limit) break;
    wake = ticket.deadline;
    limit = std::min(limit, plus(ticket.deadline, entry.leeway));
  }
  return wake;
}

void TimerHeap::submitDue(MonotonicTime now) {
  std::vector<Entry> due;
  {
    const std::lock_guard lock(mutex_);
    while (!entries_.empty() && entries_.begin()->first.deadline <= now)
      due.push_back(std::move(entries_.extract(entries_.begin()).mapped()));
  }
  for (Entry& entry : due) entry.queue->async(std::move(entry.task));
}

void TimerHeap::close() {
  std::map<Ticket, Entry> dropped;
  const std::lock_guard lock(mutex_);
  clock_ = nullptr;
  dropped.swap(entries_);
}

void TimerHeap::serve() {
  std::unique_lock lock(mutex_);
  for (;;) {
    const std::optional<MonotonicTime> wake = nextWakeLocked(MonotonicTime::max());
    if (wake && *wake <= clock_->monotonicNow()) {
      lock.unlock();
      submitDue(*wake);
      lock.lock();
      continue;
    }
    // An earlier deadline that arrives meanwhile ends the sleep; so may anything else, without harm.
    sleepsUntil_ = wake.value_or(MonotonicTime::max());
    const auto nap = std::min<Nanoseconds>(sleepsUntil_ - clock_->monotonicNow(), std::chrono::hours(24));
    if (wake)
      wake_.wait_for(lock, nap);
    else
      wake_.wait(lock);
    sleepsUntil_ = MonotonicTime::min();
  }
}

}  // namespace larkspan::platform

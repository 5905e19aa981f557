#include "larkspan/platform/dispatch/WorkerPool.h"

#include "larkspan/platform/dispatch/Thread.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

constexpr auto kIdleLife = std::chrono::seconds(5);
constexpr auto kTick = std::chrono::milliseconds(2);
constexpr auto kTickAtCap = std::chrono::milliseconds(50);
// Workers that wait by spinning look busy. After this many ticks without progress one is added anyway.
constexpr unsigned kPatience = 50;

unsigned processorCount() {
  static const unsigned count = std::clamp(std::thread::hardware_concurrency(), 2U, WorkerPool::kMaxWorkers);
  return count;
}

// The third field of /proc/self/task/TID/stat, proc(5). A thread that cannot be looked at counts as blocked.
bool isRunnable(int thread) {
  char path[48];
  std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", thread);
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return false;
  char text[128];
  const ssize_t size = read(descriptor, text, sizeof text - 1);
  close(descriptor);
  text[std::max<ssize_t>(size, 0)] = '\0';
  const char* const name = std::strrchr(text, ')');
  return name && std::strncmp(name, ") R", 3) == 0;
}

}  // namespace

struct WorkerPool::Worker {
  int thread = gettid();
  const DispatchQueue* running = nullptr;
  sem_t wake;

  Worker() { sem_init(&wake, 0, 0); }
  ~Worker() { sem_destroy(&wake); }

  /// False when the time is up.
  bool sleep(std::chrono::seconds atMost) {
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += atMost.count();
    while (sem_clockwait(&wake, CLOCK_MONOTONIC, &end) != 0) {
      if (errno == ETIMEDOUT) return false;
    }
    return true;
  }
};

WorkerPool& WorkerPool::normalPool() {
  static auto* const pool = new WorkerPool(false);
  return *pool;
}

WorkerPool& WorkerPool::lowPool() {
  static auto* const pool = new WorkerPool(true);
  return *pool;
}

WorkerPool& WorkerPool::forQuality(QualityOfService quality) {
  return quality == QualityOfService::utility || quality == QualityOfService::background ? lowPool()
                                                                                         : normalPool();
}

bool WorkerPool::allIdle(std::string& busy, bool (*others)(std::string& busy)) {
  WorkerPool& normal = normalPool();
  WorkerPool& low = lowPool();
  const std::scoped_lock lock(normal.mutex_, low.mutex_);
  for (const WorkerPool* pool : {&normal, &low}) {
    for (const Worker* worker : pool->workers_)
      if (worker->running) {
        busy = worker->running->label();
        return false;
      }
    if (const TaskNode* const node = pool->first_ ? pool->first_.load() : pool->inbox_.load()) {
      busy = node->owner->label();
      return false;
    }
  }
  if (!others(busy)) return false;
  // Last, because what is kept comes out of `others`.
  if (keptCount != 0) busy = "what a thread keeps for itself";
  return keptCount == 0;
}

thread_local WorkerPool::Kept* WorkerPool::keeper = nullptr;
std::atomic<int> WorkerPool::keptCount{0};

WorkerPool::Kept::Kept() { keeper = this; }

WorkerPool::Kept::~Kept() {
  keeper = nullptr;
  TaskNode* const node = std::exchange(node_, nullptr);
  if (!node) return;
  std::shared_ptr<PooledQueue> owner = std::move(node->owner);
  owner->execute(node);
  owner.reset();
  --keptCount;
  IdleSignal::notify();
}

void WorkerPool::Kept::handOver() {
  if (!keeper) return;
  TaskNode* const node = std::exchange(std::exchange(keeper, nullptr)->node_, nullptr);
  if (!node) return;
  forQuality(node->owner->qualityOfService()).push(node);
  --keptCount;
}

void WorkerPool::push(TaskNode* node) {
  // A concurrent queue starts its tasks in order.
  if (keeper && !keeper->node_ && !low_ && !node->task) {
    ++keptCount;
    keeper->node_ = node;
    return;
  }
  TaskNode* newest = inbox_.load(std::memory_order_relaxed);
  do {
    node->next = newest;
  } while (!inbox_.compare_exchange_weak(newest, node));
  if (attended_.load()) return;
  std::unique_lock lock(mutex_);
  Worker* const sleeper = hasWaiting() ? summonWorker() : nullptr;
  lock.unlock();
  wake(sleeper);
}

TaskNode* WorkerPool::pop() {
  TaskNode* first = first_.load(std::memory_order_relaxed);
  if (!first) {
    first = TaskNode::reverse(inbox_.exchange(nullptr));
    if (!first) return nullptr;
  }
  first_.store(first->next, std::memory_order_relaxed);
  ++taken_;
  return first;
}

// Whether a pusher has nobody to tell: a worker is on its way, or all are busy and the monitor watches them.
void WorkerPool::updateAttended() {
  const bool attended =
      searching_ != 0 || (sleepers_.empty() && count_ >= processorCount() && hasMonitor_ && !monitorSleeps_);
  if (attended != attended_.load(std::memory_order_relaxed)) attended_.store(attended);
}

// Sees to it that the waiting work will be taken: by the worker that is already on its way, by a sleeper, by
// a new worker, or else by whoever finishes first, with the monitor watching that somebody does. Answers the
// sleeper: it is to be woken once the mutex is free, or it would have to wait again at once.
WorkerPool::Worker* WorkerPool::summonWorker() {
  if (searching_ != 0) return nullptr;
  if (!sleepers_.empty()) {
    Worker* const worker = sleepers_.back();
    sleepers_.pop_back();
    ++searching_;
    updateAttended();
    return worker;
  }
  if (count_ < processorCount()) {
    spawn();
  } else if (!hasMonitor_) {
    try {
      startThread("lks-monitor", [this] { monitor(); });
      hasMonitor_ = true;
    } catch (const std::system_error&) {
      // Whoever finishes first takes the work; the next task tries again.
    }
  } else if (monitorSleeps_) {
    monitorSleeps_ = false;
    monitorWake_.notify_one();
  }
  updateAttended();
  return nullptr;
}

void WorkerPool::wake(Worker* sleeper) {
  if (sleeper) sem_post(&sleeper->wake);
}

void WorkerPool::spawn() {
  for (;; std::this_thread::sleep_for(kTickAtCap)) {
    try {
      if (low_)
        startLowPriorityThread("lks-utility", [this] { work(); });
      else
        startThread("lks-worker", [this] { work(); });
      ++count_;
      ++searching_;
      return;
    } catch (const std::system_error&) {
      // Whoever finishes first takes the work. Nobody would where there is no worker yet, and what was queued cannot be
      // taken back from those who count on it: so the poster waits for the first one.
      if (count_ != 0) return;
    }
  }
}

void WorkerPool::work() {
  Worker self;
  std::shared_ptr<PooledQueue> owner;
  std::unique_lock lock(mutex_);
  workers_.push_back(&self);
  bool searching = true;
  for (;;) {
    if (TaskNode* const node = pop()) {
      if (searching) --searching_;
      searching = false;
      updateAttended();
      Worker* const next = hasWaiting() ? summonWorker() : nullptr;
      owner = std::move(node->owner);
      self.running = owner.get();
      ++busy_;
      lock.unlock();
      wake(next);
      owner->execute(node);
      lock.lock();
      self.running = nullptr;
      owner.reset();
      if (--busy_ == 0 && !hasWaiting()) IdleSignal::notify();
      continue;
    }
    sleepers_.push_back(&self);
    if (searching) --searching_;
    searching = false;
    updateAttended();
    if (hasWaiting()) {
      sleepers_.pop_back();
      continue;
    }
    lock.unlock();
    const bool woken = self.sleep(kIdleLife);
    lock.lock();
    if (!woken) {
      if (std::erase(sleepers_, &self)) {
        std::erase(workers_, &self);
        --count_;
        return;
      }
      // Somebody is about to wake it.
      lock.unlock();
      while (!self.sleep(kIdleLife)) {
      }
      lock.lock();
    }
    searching = true;
  }
}

void WorkerPool::monitor() {
  std::vector<int> threads;
  std::unique_lock lock(mutex_);
  for (;;) {
    while (!hasWaiting()) {
      monitorSleeps_ = true;
      updateAttended();
      if (!hasWaiting()) monitorWake_.wait(lock);
      monitorSleeps_ = false;
      updateAttended();
    }
    for (unsigned quiet = 0; hasWaiting() && quiet <= kPatience; ++quiet) {
      const uint64_t before = taken_;
      const auto tick = count_ < kMaxWorkers ? kTick : kTickAtCap;
      lock.unlock();
      std::this_thread::sleep_for(tick);
      lock.lock();
      if (!hasWaiting() || taken_ != before || searching_ != 0) break;
      threads.clear();
      for (const Worker* worker : workers_) threads.push_back(worker->thread);
      lock.unlock();
      const auto runnable = static_cast<unsigned>(std::count_if(threads.begin(), threads.end(), isRunnable));
      lock.lock();
      if (taken_ != before) break;
      unsigned wanted = runnable < processorCount() ? processorCount() - runnable : quiet == kPatience;
      for (; wanted != 0 && hasWaiting() && count_ < kMaxWorkers; --wanted) spawn();
    }
  }
}

std::atomic<int> IdleSignal::listeners_{0};

namespace {
int idleDescriptor() {
  static const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return descriptor;
}
}  // namespace

IdleSignal::Listener::Listener() {
  idleDescriptor();
  ++listeners_;
}

IdleSignal::Listener::~Listener() { --listeners_; }

void IdleSignal::Listener::wait(int descriptor, std::chrono::milliseconds timeout) {
  pollfd watched[2] = {{idleDescriptor(), POLLIN, 0}, {descriptor, POLLIN, 0}};
  poll(watched, 2, static_cast<int>(timeout.count()));
  eventfd_t count;
  if (watched[0].revents) eventfd_read(idleDescriptor(), &count);
}

void IdleSignal::write() { eventfd_write(idleDescriptor(), 1); }

}  // namespace larkspan::platform

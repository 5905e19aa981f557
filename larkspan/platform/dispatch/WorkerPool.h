#pragma once

#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/dispatch/TaskNode.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace larkspan::platform {

/// A queue whose work the pools run.
class PooledQueue : public DispatchQueue {
 public:
  /// Runs what `node` stands for; the caller holds the queue alive.
  virtual void execute(TaskNode* node) noexcept = 0;
};

/// The worker threads: one pool for normal work, one for utility and background work.
///
/// A pool keeps as many workers as there are processors, at least two. Only when work waits and no worker has taken any for
/// some milliseconds does the pool's monitor look at the workers, and adds one for each processor that they
/// leave unused because they are blocked, up to `kMaxWorkers`. A worker without work sleeps for seconds, then
/// ends. It does not look for work by spinning first: a thread that posts and then blocks, as one that reads
/// from a socket does, is followed by the worker on the same processor, which is cheaper than keeping another
/// one busy. At most one worker is on its way to the work at a time, and it wakes the next when it finds more
/// than it takes: a burst of tasks does not wake the whole pool, and a task posted while a worker is on its
/// way, or while all are busy, costs one atomic operation.
///
/// Limits: `kMaxWorkers` tasks that are all blocked on tasks queued behind them wait forever.
class WorkerPool {
 public:
  static constexpr unsigned kMaxWorkers = 64;

  static WorkerPool& forQuality(QualityOfService);
  /// Whether at one instant neither pool runs or holds any work and `others` answers true. If not, `busy`
  /// gets the label of a queue that has some, or is left to `others`, which must not enter a pool.
  static bool allIdle(std::string& busy, bool (*others)(std::string& busy));

  /// Adds work at the end, unless the calling thread keeps it. `node->owner` is the queue that will be asked to execute it.
  void push(TaskNode* node);

  /// While this lives, the calling thread keeps the first serial queue of the normal pool that it sets going, and runs it
  /// when this ends: that saves waking a worker where another thread takes over what this one does. Until then the thread
  /// must not wait for what it posted, unless by `DispatchQueue::sync`, which hands it over to a worker.
  class Kept {
   public:
    Kept();
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;
    ~Kept();
    /// Whether there is any.
    explicit operator bool() const { return node_; }
    /// For a thread that is about to wait for other work: leaves to a worker what it keeps, and keeps nothing more.
    static void handOver();

   private:
    friend WorkerPool;
    TaskNode* node_ = nullptr;
  };
  /// Whether work waits for a worker: time for a queue with much to do to stand aside.
  bool hasWaiting() const { return first_.load(std::memory_order_relaxed) || inbox_.load(); }

 private:
  struct Worker;

  explicit WorkerPool(bool low) : low_(low) {}
  static WorkerPool& normalPool();
  static WorkerPool& lowPool();

  void work();
  void monitor();
  TaskNode* pop();
  Worker* summonWorker();
  void updateAttended();
  static void wake(Worker* sleeper);
  void spawn();

  static thread_local Kept* keeper;
  static std::atomic<int> keptCount;

  const bool low_;
  // What producers touch: a stack of new work, and whether it will be seen without their telling anybody.
  alignas(64) std::atomic<TaskNode*> inbox_{nullptr};
  std::atomic<bool> attended_{false};  // Written under the mutex; whoever makes it false then looks for work.
  alignas(64) std::mutex mutex_;
  std::atomic<TaskNode*> first_{nullptr};  // Work out of the inbox, oldest first; written under the mutex.
  uint64_t taken_ = 0;                     // Work ever taken; tells the monitor of progress.
  std::vector<Worker*> workers_;
  std::vector<Worker*> sleepers_;  // The last to fall asleep wakes first, so that the others time out.
  unsigned count_ = 0;             // Workers, started or starting.
  unsigned searching_ = 0;         // Workers on their way to the work.
  unsigned busy_ = 0;
  bool hasMonitor_ = false;
  bool monitorSleeps_ = false;
  std::condition_variable monitorWake_;
};

/// Tells whoever waits for the process to become idle (a manual clock) that something finished.
/// Costs one relaxed load while nobody waits.
class IdleSignal {
 public:
  /// Notifications are recorded while one of these lives.
  class Listener {
   public:
    Listener();
    ~Listener();
    /// Waits for a notification or for `descriptor` (-1: none) to become readable, at most `timeout`.
    void wait(int descriptor, std::chrono::milliseconds timeout);
  };

  static void notify() {
    if (listeners_.load() != 0) write();
  }

 private:
  static void write();
  static std::atomic<int> listeners_;
};

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/dispatch/WorkerPool.h"

#include <atomic>
#include <string>

namespace larkspan::platform {

/// A link in the chain of queues that the calling thread runs a task of, innermost first. A synchronous call
/// that another thread carries out continues the chain of its caller, who stands still meanwhile.
struct RunningFrame {
  const DispatchQueue* queue;
  RunningFrame* outer;

  explicit RunningFrame(const DispatchQueue* running) : queue(running), outer(innermost) { innermost = this; }
  ~RunningFrame() { innermost = outer; }
  RunningFrame(const RunningFrame&) = delete;
  RunningFrame& operator=(const RunningFrame&) = delete;

  static bool contains(const DispatchQueue* queue);
  static thread_local RunningFrame* innermost;
};

/// A queue that runs one task at a time.
///
/// Everything that producers touch is one word, `head_`: a stack of tasks, newest first. It is null while the
/// queue is idle; who pushes onto null schedules the queue. Whoever then runs the queue swaps the stack for
/// the mark `busy`, reverses what it took into `pending_`, runs that in order and repeats; it gives the queue
/// up by swapping the mark for null. So a push costs one atomic operation, and there is one runner at a time.
class SerialQueue : public PooledQueue {
 public:
  SerialQueue(std::string label, QualityOfService quality);
  ~SerialQueue() override;

  const std::string& label() const override { return label_; }
  QualityOfService qualityOfService() const override { return quality_; }
  void async(Task task) override;
  bool isCurrent() const override { return RunningFrame::contains(this); }
  void execute(TaskNode* node) noexcept override;

  bool isIdle() const { return head_.load(std::memory_order_acquire) == nullptr; }
  /// Serial queues that run a task on a thread which called `sync`.
  static std::atomic<int> inlineRuns;

 protected:
  bool runNow(Task& task) override;
  /// Arranges for the queue to be run, which is idle no more.
  virtual void schedule();

  /// The parts of running a queue, for its one runner.
  void takeTasks();
  bool hasPending() const { return pending_ != nullptr; }
  void runOne() noexcept;
  /// Gives the queue up; false when there is a task after all.
  bool release();

 private:
  static TaskNode* busy();
  void letMoreCome(unsigned justRan) const;

  WorkerPool& pool_;
  const std::string label_;
  const QualityOfService quality_;
  // Producers write the one, the runner the other: on different cache lines, or each would wait for the other.
  alignas(64) std::atomic<TaskNode*> head_{nullptr};
  alignas(64) TaskNode* pending_ = nullptr;  // Taken from the stack and due, oldest first.
  TaskNode scheduling_;                      // Stands for this queue among the pool's waiting work.
};

}  // namespace larkspan::platform

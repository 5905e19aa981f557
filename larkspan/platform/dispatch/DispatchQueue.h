#pragma once

#include "larkspan/platform/dispatch/Task.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace larkspan::platform {

/// How urgent work is. The numbers are the ones that archives, logs and the operation queues use.
enum class QualityOfService : int {
  userInteractive = 33,
  userInitiated = 25,
  defaultClass = -1,
  utility = 17,    ///< Threads of its own at low CPU and I/O priority.
  background = 9,  ///< Runs with the utility work.
};

/// A queue of tasks over the process's worker pool. A serial queue runs one task at a time in the order of
/// submission; a concurrent queue starts tasks in order and runs them side by side. What a task of a serial
/// queue captured is destroyed before the next task starts.
/// Owner:   whoever submits; queued tasks run even if every handle on the queue is dropped.
/// Thread:  tasks run on pool threads (main queue: on the initial thread; `sync`: perhaps on the caller's; what a call from
///          another process posts: perhaps on the thread that read it). Submission from any thread.
/// Failure: an exception that leaves a task ends the program. Where the kernel refuses even the first worker its thread,
///          whoever submits waits until it does not.
/// Limits:  64 normal and 64 utility tasks may block at once; work queued behind so many waits for one of
///          them.
class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
 public:
  static std::shared_ptr<DispatchQueue> makeSerial(std::string label,
                                                   QualityOfService = QualityOfService::defaultClass);
  static std::shared_ptr<DispatchQueue> makeConcurrent(std::string label,
                                                       QualityOfService = QualityOfService::defaultClass);
  /// The process's shared concurrent queue of that class.
  static const std::shared_ptr<DispatchQueue>& global(QualityOfService = QualityOfService::defaultClass);
  /// The queue of the initial thread. Its tasks run only while that thread is in `runMainQueue()` or
  /// calls `drainMainQueue()`: a program that does neither hears no main-queue callback.
  static const std::shared_ptr<DispatchQueue>& main();

  virtual ~DispatchQueue() = default;
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  virtual const std::string& label() const = 0;
  virtual QualityOfService qualityOfService() const = 0;

  /// Submits a task and returns at once.
  virtual void async(Task task) = 0;
  /// Submits a task that becomes due once `delay` has passed on the current clock; never early.
  void after(std::chrono::nanoseconds delay, Task task);
  /// Runs a task on the queue and returns when it is done and destroyed; an idle serial queue runs it on the
  /// calling thread. Calling it from a task of the same serial queue is a mistake: throws std::logic_error.
  void sync(Task task);
  /// Whether the calling thread is running a task of this queue, or one on behalf of such a task that waits
  /// in `sync`.
  virtual bool isCurrent() const = 0;

 protected:
  DispatchQueue() = default;
  /// Runs `task` on the calling thread if the queue allows that at this moment; otherwise leaves it alone and
  /// answers false.
  virtual bool runNow(Task& task);
};

/// Runs main-queue tasks on the calling thread until `stopMainQueue()`. Throws std::logic_error off the
/// initial thread and in a main-queue task.
void runMainQueue();
/// Makes `runMainQueue()` return after the task it is in, or the next call return at once if none is running.
/// Tasks that are still queued stay queued. Any thread; async-signal-unsafe.
void stopMainQueue();
/// A descriptor that is readable while the main queue has a task, for a foreign event loop, which then
/// calls `drainMainQueue()` on the initial thread. Only to be watched; it lives as long as the process. -1 while the process
/// has no descriptor left for it.
int mainQueueDescriptor();
/// Runs the main-queue tasks that are due now, without waiting and without those that they add; returns how
/// many ran. Throws like `runMainQueue()`.
std::size_t drainMainQueue();

}  // namespace larkspan::platform

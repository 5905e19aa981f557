#pragma once

#include "larkspan/platform/base/Clock.h"
#include "larkspan/platform/dispatch/Task.h"

#include <chrono>
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

/// A queue of tasks over the process's worker pool.
/// A serial queue runs one task at a time in the order of submission; a concurrent queue starts tasks in
/// order and runs them side by side.
/// Owner:   whoever submits; queued tasks run even if every handle on the queue is dropped.
/// Thread:  tasks run on pool threads (main queue: on the initial thread). Submission from any thread.
/// Failure: an exception that leaves a task ends the program.
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
  /// Runs a task on the queue and returns when it is done. Calling it from a task of the same serial
  /// queue is a mistake: throws std::logic_error.
  void sync(Task task);
  /// Whether the calling thread is running a task of this queue.
  virtual bool isCurrent() const = 0;

 protected:
  DispatchQueue() = default;
};

/// Runs main-queue tasks on the calling (initial) thread until `stopMainQueue()`.
void runMainQueue();
/// Makes `runMainQueue()` return after the task it is in. Any thread; async-signal-unsafe.
void stopMainQueue();
/// A descriptor that is readable while the main queue has a task, for a foreign event loop, which then
/// calls `drainMainQueue()` on the initial thread.
int mainQueueDescriptor();
/// Runs the main-queue tasks that are due now, without waiting; returns how many ran.
std::size_t drainMainQueue();

}  // namespace larkspan::platform

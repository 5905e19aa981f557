#pragma once

#include "larkspan/platform/base/Object.h"
#include "larkspan/platform/dispatch/KeyObservers.h"

#include <atomic>
#include <condition_variable>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace larkspan::platform {

class OperationQueue;

enum class QueuePriority : int { veryLow = -8, low = -4, normal = 0, high = 4, veryHigh = 8 };

/// One piece of work with a state that can be observed, waited for and depended on.
///
/// A plain operation overrides `main()`; when that returns the operation is finished. An asynchronous one
/// overrides `start()`, `isExecuting()`, `isFinished()` and `isAsynchronous()`, keeps its state itself and
/// announces its changes under the keys "isExecuting" and "isFinished": what depends on the operation, waits
/// for it or queued it learns of its end from the "isFinished" change and from nothing else.
///
/// Owner:   std::shared_ptr; the queue holds an operation from its addition to its end.
/// Thread:  any; `start()` and `main()` run on the thread that the queue gives the operation, or on the
///          caller's.
/// Failure: an exception that leaves `main()` under a queue ends the program.
class Operation : public Object {
 public:
  Operation() = default;

  /// Runs the operation: announces, runs `main()` and finishes. A cancelled operation finishes at once.
  /// Throws std::invalid_argument when the operation has been started before or depends on unfinished ones.
  virtual void start();
  virtual void main() {}

  virtual bool isExecuting() const { return state_ == State::executing; }
  virtual bool isFinished() const { return state_ == State::finished; }
  virtual bool isAsynchronous() const { return false; }
  /// Whether a queue may start it: all dependencies are finished, or it is cancelled. A subclass that adds a
  /// condition announces its change under "isReady".
  virtual bool isReady() const;

  /// Asks the operation to end early; what runs already must look at `isCancelled()` itself. It still has to
  /// finish, and is ready to start whatever it depends on, so that it can. Nothing happens after its end.
  virtual void cancel();
  bool isCancelled() const { return cancelled_; }

  /// Makes this operation wait for the end of `other`; without effect once it runs. Throws
  /// std::invalid_argument for null and for the operation itself; a longer cycle is never ready.
  void addDependency(std::shared_ptr<Operation> other);
  void removeDependency(const std::shared_ptr<Operation>& other);
  /// In the order they were added. Let go of when the operation finishes.
  std::vector<std::shared_ptr<Operation>> dependencies() const;

  /// Looked at when the operation, already in a queue, becomes ready.
  QueuePriority queuePriority() const { return priority_; }
  void setQueuePriority(QueuePriority priority) { priority_ = priority; }

  /// Blocks until the end of the operation has been announced.
  void waitUntilFinished() const;

  /// Calls `handler` before and after each announced change of `key`, on the announcing thread.
  KeyObservation observe(std::string_view key, KeyObservers::Handler handler) {
    return observers_.observe(key, std::move(handler));
  }

 protected:
  void willChangeValueForKey(std::string_view key);
  void didChangeValueForKey(std::string_view key);

 private:
  friend OperationQueue;
  enum class State { created, executing, finished };

  void setState(State state, std::initializer_list<std::string_view> keys);
  void readinessChanged();
  void ended();

  std::atomic<State> state_{State::created};
  std::atomic<bool> cancelled_{false};
  std::atomic<QueuePriority> priority_{QueuePriority::normal};
  KeyObservers observers_;

  mutable std::mutex mutex_;
  mutable std::condition_variable waitCondition_;
  bool ended_ = false;       // "isFinished" has been announced.
  bool waitIsOver_ = false;  // And the queue has let go of it.
  bool queued_ = false;      // Has been added to a queue, ever.
  std::shared_ptr<OperationQueue> queue_;
  std::vector<std::shared_ptr<Operation>> dependencies_;
  std::vector<std::weak_ptr<Operation>> dependents_;
};

}  // namespace larkspan::platform

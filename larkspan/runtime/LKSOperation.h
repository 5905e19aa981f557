#pragma once

#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/dispatch/Operation.h"
#include "larkspan/platform/dispatch/OperationQueue.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace larkspan {

/// Posted on the thread that starts the operation, before it executes; the object is the operation.
inline constexpr platform::Key LKSOperationWillStartNotification = "LKSOperationWillStartNotification";
/// Posted on the main queue at least 10 ms after the operation finished; the object is the operation. A
/// program that does not run its main queue never hears it, and keeps every finished operation.
inline constexpr platform::Key LKSOperationDidFinishNotification = "LKSOperationDidFinishNotification";

/// An asynchronous operation: it goes on executing after `main` has returned and ends only when somebody
/// calls `finishWithError`. Subclasses override `main`, start their work there and arrange for that call.
/// Owner:   std::shared_ptr (it must be owned by one).
/// Thread:  `start` and `main` run on the thread that the queue gives the operation, or on the caller's.
///          `finishWithError` may be called from any thread, but not while `start` is still deciding whether
///          to run.
/// Failure: an exception that leaves `main` finishes the operation with an error of
///          "LKSExtensionOperationErrorDomain".
class LKSOperation : public platform::Operation {
 public:
  LKSOperation() = default;
  template <typename T>
  static std::shared_ptr<T> makeOperation() {
    return std::make_shared<T>();
  }

  /// A cancelled operation finishes at once, without an error and without running. Otherwise throws
  /// std::invalid_argument when it has been started before.
  void start() override;
  /// Ends the operation with that outcome; nothing is success. There is no guard against a second call: it
  /// overwrites the outcome and posts once more.
  void finishWithError(const std::optional<platform::Error>& error);

  /// Runs a piece of the operation's work; an exception that leaves it finishes the operation with an error.
  void guarded(const std::function<void()>& work);

  /// Called by LKSOperationQueue before it takes the operation, and by `finishWithError` with the queue that
  /// started it, which may be null.
  virtual void willEnqueueInOperationQueue(const std::shared_ptr<platform::OperationQueue>& queue);
  virtual void willDequeueFromOperationQueue(const std::shared_ptr<platform::OperationQueue>& queue);

  bool isAsynchronous() const override { return true; }
  bool isExecuting() const override { return executing_; }
  bool isFinished() const override { return finished_; }

  /// Seconds since 2001-01-01T00:00:00Z; 0 until it happened.
  double startTime() const { return startTime_; }
  double finishTime() const { return finishTime_; }
  /// Seconds from start to finish; 0 unless both happened in that order.
  double duration() const;

  /// Why the operation failed; nothing is success, or no outcome yet.
  std::optional<platform::Error> error() const;
  void setError(std::optional<platform::Error> error);
  /// The queue that started the operation; null when it was started by hand.
  std::shared_ptr<platform::OperationQueue> operationQueue() const;
  void setOperationQueue(const std::shared_ptr<platform::OperationQueue>& queue);

 private:
  void setFlag(std::atomic<bool>& flag, bool value, std::string_view key);

  std::atomic<bool> executing_{false};
  std::atomic<bool> finished_{false};
  std::atomic<double> startTime_{0};
  std::atomic<double> finishTime_{0};
  mutable std::mutex mutex_;
  std::optional<platform::Error> error_;
  std::weak_ptr<platform::OperationQueue> queue_;
};

}  // namespace larkspan

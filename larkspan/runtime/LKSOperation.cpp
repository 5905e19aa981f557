#include "larkspan/runtime/LKSOperation.h"

#include "larkspan/platform/base/Date.h"
#include "larkspan/platform/base/NotificationCenter.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/runtime/Log.h"

#include <exception>
#include <stdexcept>

namespace larkspan {

namespace {

constexpr std::chrono::milliseconds kFinishNotificationDelay{10};

double now() { return platform::Date::now().timeIntervalSinceReferenceDate(); }

}  // namespace

void LKSOperation::start() {
  const auto self = shared_from_this();
  setOperationQueue(platform::OperationQueue::current());
  // The cancellation comes first: a cancelled operation that is started again finishes again.
  if (isCancelled()) {
    finishWithError(std::nullopt);
    return;
  }
  if (isExecuting() || isFinished())
    throw std::invalid_argument("You can't start an operation more than once.");
  platform::NotificationCenter::defaultCenter().post(LKSOperationWillStartNotification, self);
  setFlag(executing_, true, "isExecuting");
  startTime_ = now();
  guarded([this] { main(); });
}

void LKSOperation::guarded(const std::function<void()>& work) {
  const auto fail = [this](const char* what) {
    // What has finished has its outcome.
    if (!isFinished())
      finishWithError(platform::transportError(platform::TransportErrorCode::exception, what));
  };
  try {
    work();
  } catch (const std::exception& exception) {
    fail(exception.what());
  } catch (...) {
    fail("An exception of an unknown kind");
  }
}

void LKSOperation::finishWithError(const std::optional<platform::Error>& error) {
  const auto self = shared_from_this();
  setError(error);
  willDequeueFromOperationQueue(operationQueue());
  setFlag(executing_, false, "isExecuting");
  setFlag(finished_, true, "isFinished");
  finishTime_ = now();
  if (error) LKSLog("LKSOperation - finishWithError: %@", error);
  platform::DispatchQueue::main()->after(kFinishNotificationDelay, [self] {
    platform::NotificationCenter::defaultCenter().post(LKSOperationDidFinishNotification, self);
  });
}

void LKSOperation::willEnqueueInOperationQueue(const std::shared_ptr<platform::OperationQueue>&) {}
void LKSOperation::willDequeueFromOperationQueue(const std::shared_ptr<platform::OperationQueue>&) {}

void LKSOperation::setFlag(std::atomic<bool>& flag, bool value, std::string_view key) {
  if (flag == value) return;
  willChangeValueForKey(key);
  flag = value;
  didChangeValueForKey(key);
}

double LKSOperation::duration() const {
  const double start = startTime_;
  const double finish = finishTime_;
  return start > 0 && finish > start ? finish - start : 0;
}

std::optional<platform::Error> LKSOperation::error() const {
  const std::lock_guard lock(mutex_);
  return error_;
}

void LKSOperation::setError(std::optional<platform::Error> error) {
  const std::lock_guard lock(mutex_);
  error_.swap(error);
}

std::shared_ptr<platform::OperationQueue> LKSOperation::operationQueue() const {
  const std::lock_guard lock(mutex_);
  return queue_.lock();
}

void LKSOperation::setOperationQueue(const std::shared_ptr<platform::OperationQueue>& queue) {
  const std::lock_guard lock(mutex_);
  queue_ = queue;
}

}  // namespace larkspan

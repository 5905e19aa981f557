#include "larkspan/platform/dispatch/OperationQueue.h"

#include <stdexcept>

namespace larkspan::platform {
namespace {

thread_local OperationQueue* currentQueue = nullptr;

}  // namespace

std::shared_ptr<OperationQueue> OperationQueue::current() {
  return currentQueue ? std::static_pointer_cast<OperationQueue>(currentQueue->shared_from_this()) : nullptr;
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) { enqueue(std::move(operation)); }

void OperationQueue::addOperations(const std::vector<std::shared_ptr<Operation>>& operations,
                                   bool waitUntilFinished) {
  for (const auto& operation : operations) enqueue(operation);
  if (waitUntilFinished)
    for (const auto& operation : operations) operation->waitUntilFinished();
}

void OperationQueue::enqueue(std::shared_ptr<Operation> operation) {
  if (!operation) throw std::invalid_argument("no operation to add");
  if (operation->isExecuting() || operation->isFinished())
    throw std::invalid_argument("an operation that was started is added to a queue");
  {
    const std::scoped_lock lock(mutex_, operation->mutex_);
    if (std::exchange(operation->queued_, true))
      throw std::invalid_argument("an operation is added to a queue more than once");
    operation->queue_ = std::static_pointer_cast<OperationQueue>(shared_from_this());
    Entry& entry = entries_[operation.get()];
    entry.operation = operation;
    entry.key.second = ++lastOrder_;
  }
  operation->readinessChanged();
}

void OperationQueue::operationIsReady(Operation& operation) {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(&operation);
  if (found == entries_.end() || found->second.state != Entry::waiting) return;
  Entry& entry = found->second;
  entry.state = Entry::ready;
  entry.key.first = -static_cast<int>(operation.queuePriority());
  ready_.emplace(entry.key, &operation);
  startReady();
}

void OperationQueue::startReady() {
  while (!suspended_ && !ready_.empty() &&
         (maxConcurrent_ == kUnlimited || started_ < static_cast<std::size_t>(maxConcurrent_))) {
    Entry& entry = entries_.at(ready_.begin()->second);
    ready_.erase(ready_.begin());
    entry.state = Entry::started;
    ++started_;
    DispatchQueue::global(quality_)->async(
        [self = std::static_pointer_cast<OperationQueue>(shared_from_this()), operation = entry.operation] {
          self->run(operation);
        });
  }
}

void OperationQueue::run(const std::shared_ptr<Operation>& operation) {
  if (!operation->isReady()) {
    // It was given a dependency after it had become ready: back to waiting.
    {
      const std::lock_guard lock(mutex_);
      entries_.at(operation.get()).state = Entry::waiting;
      --started_;
      startReady();
    }
    operation->readinessChanged();
    return;
  }
  OperationQueue* const outer = std::exchange(currentQueue, this);
  operation->start();
  currentQueue = outer;
}

void OperationQueue::operationEnded(Operation& operation) {
  std::shared_ptr<Operation> held;  // Let go of after the lock is released.
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(&operation);
  if (found == entries_.end()) return;
  if (found->second.state == Entry::ready) ready_.erase(found->second.key);
  if (found->second.state == Entry::started) --started_;
  held = std::move(found->second.operation);
  entries_.erase(found);
  if (entries_.empty()) empty_.notify_all();
  startReady();
}

int OperationQueue::maxConcurrentOperationCount() const {
  const std::lock_guard lock(mutex_);
  return maxConcurrent_;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
  if (count < kUnlimited) throw std::invalid_argument("a negative number of concurrent operations");
  const std::lock_guard lock(mutex_);
  maxConcurrent_ = count;
  startReady();
}

QualityOfService OperationQueue::qualityOfService() const {
  const std::lock_guard lock(mutex_);
  return quality_;
}

void OperationQueue::setQualityOfService(QualityOfService quality) {
  const std::lock_guard lock(mutex_);
  quality_ = quality;
}

bool OperationQueue::isSuspended() const {
  const std::lock_guard lock(mutex_);
  return suspended_;
}

void OperationQueue::setSuspended(bool suspended) {
  const std::lock_guard lock(mutex_);
  suspended_ = suspended;
  startReady();
}

std::size_t OperationQueue::operationCount() const {
  const std::lock_guard lock(mutex_);
  return entries_.size();
}

void OperationQueue::cancelAllOperations() {
  std::vector<std::shared_ptr<Operation>> operations;
  {
    const std::lock_guard lock(mutex_);
    operations.reserve(entries_.size());
    for (const auto& [key, entry] : entries_) operations.push_back(entry.operation);
  }
  for (const auto& operation : operations) operation->cancel();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  if (currentQueue == this) throw std::logic_error("an operation waits for its own queue to become empty");
  std::unique_lock lock(mutex_);
  empty_.wait(lock, [this] { return entries_.empty(); });
}

}  // namespace larkspan::platform

#include "larkspan/platform/dispatch/Operation.h"

#include "larkspan/platform/dispatch/OperationQueue.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace larkspan::platform {

void Operation::setState(State state, std::initializer_list<std::string_view> keys) {
  for (const std::string_view key : keys) willChangeValueForKey(key);
  state_ = state;
  for (const std::string_view key : keys) didChangeValueForKey(key);
}

void Operation::start() {
  if (isCancelled() && state_ != State::executing) {
    if (state_ != State::finished) setState(State::finished, {"isFinished"});
    return;
  }
  if (state_ != State::created) throw std::invalid_argument("an operation is started more than once");
  if (!isReady()) throw std::invalid_argument("an operation is started that depends on unfinished ones");
  setState(State::executing, {"isExecuting"});
  main();
  setState(State::finished, {"isExecuting", "isFinished"});
}

bool Operation::isReady() const {
  if (isCancelled()) return true;
  // Not under this operation's lock: two operations that depend on each other would block each other.
  for (const auto& dependency : dependencies()) {
    const std::lock_guard lock(dependency->mutex_);
    if (!dependency->ended_) return false;
  }
  return true;
}

void Operation::cancel() {
  {
    const std::lock_guard lock(mutex_);
    if (ended_) return;
  }
  if (isCancelled()) return;
  willChangeValueForKey("isCancelled");
  cancelled_ = true;
  didChangeValueForKey("isCancelled");
  readinessChanged();
}

void Operation::addDependency(std::shared_ptr<Operation> other) {
  if (!other || other.get() == this) throw std::invalid_argument("an operation cannot depend on this one");
  {
    const std::lock_guard lock(other->mutex_);
    if (!other->ended_) {
      std::erase_if(other->dependents_, [](const auto& dependent) { return dependent.expired(); });
      other->dependents_.push_back(std::static_pointer_cast<Operation>(shared_from_this()));
    }
  }
  const std::lock_guard lock(mutex_);
  if (!ended_) dependencies_.push_back(std::move(other));
}

void Operation::removeDependency(const std::shared_ptr<Operation>& other) {
  {
    const std::lock_guard lock(mutex_);
    std::erase(dependencies_, other);
  }
  readinessChanged();
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
  const std::lock_guard lock(mutex_);
  return dependencies_;
}

void Operation::waitUntilFinished() const {
  std::unique_lock lock(mutex_);
  waitCondition_.wait(lock, [this] { return waitIsOver_; });
}

void Operation::willChangeValueForKey(std::string_view key) { observers_.announce(key, KeyChange::will); }

void Operation::didChangeValueForKey(std::string_view key) {
  const auto self = weak_from_this().lock();  // The queue may let go of it here.
  observers_.announce(key, KeyChange::did);
  if (key == "isFinished" && isFinished()) ended();
  if (key == "isReady") readinessChanged();
}

void Operation::readinessChanged() {
  std::shared_ptr<OperationQueue> queue;
  {
    const std::lock_guard lock(mutex_);
    queue = queue_;
  }
  if (queue && isReady()) queue->operationIsReady(*this);
}

void Operation::ended() {
  std::shared_ptr<OperationQueue> queue;
  std::vector<std::weak_ptr<Operation>> dependents;
  std::vector<std::shared_ptr<Operation>> dependencies;
  {
    const std::lock_guard lock(mutex_);
    if (ended_) return;
    ended_ = true;
    queue = std::move(queue_);
    dependents = std::move(dependents_);
    dependencies = std::move(dependencies_);
  }
  if (queue) queue->operationEnded(*this);
  for (const auto& dependent : dependents)
    if (const auto operation = dependent.lock()) operation->readinessChanged();
  const std::lock_guard lock(mutex_);
  waitIsOver_ = true;
  waitCondition_.notify_all();
}

}  // namespace larkspan::platform

#include "larkspan/runtime/LKSOperationQueue.h"

#include "larkspan/platform/process/HostFacts.h"
#include "larkspan/runtime/LKSOperation.h"

namespace larkspan {

namespace {

/// A shared queue is never released: operations may still end on it while the process exits.
const std::shared_ptr<LKSOperationQueue>& makeShared(int concurrent, platform::QualityOfService quality) {
  auto* queue = new std::shared_ptr<LKSOperationQueue>(std::make_shared<LKSOperationQueue>());
  (*queue)->setMaxConcurrentOperationCount(concurrent);
  (*queue)->setQualityOfService(quality);
  return *queue;
}

}  // namespace

const std::shared_ptr<LKSOperationQueue>& LKSOperationQueue::concurrentBackgroundQueue() {
  static const auto& queue =
      makeShared(2 * platform::HostFacts::current().processorCount, platform::QualityOfService::defaultClass);
  return queue;
}

const std::shared_ptr<LKSOperationQueue>& LKSOperationQueue::serialBackgroundQueue() {
  static const auto& queue = makeShared(1, platform::QualityOfService::utility);
  return queue;
}

void LKSOperationQueue::addOperation(std::shared_ptr<platform::Operation> operation) {
  if (auto* told = dynamic_cast<LKSOperation*>(operation.get())) {
    told->willEnqueueInOperationQueue(std::static_pointer_cast<platform::OperationQueue>(shared_from_this()));
  }
  platform::OperationQueue::addOperation(std::move(operation));
}

void LKSOperationQueue::addOperations(const std::vector<std::shared_ptr<platform::Operation>>& operations) {
  for (const auto& operation : operations) addOperation(operation);
}

}  // namespace larkspan

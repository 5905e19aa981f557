#pragma once

#include "larkspan/platform/dispatch/OperationQueue.h"

#include <memory>
#include <vector>

namespace larkspan {

/// An operation queue that tells each LKSOperation that it is about to be queued, and the library's two
/// shared queues. Operations that are no LKSOperation are taken without that hook, and so are those that come
/// in by the base class's `addOperations(operations, waitUntilFinished)`.
/// Thread: any.
class LKSOperationQueue : public platform::OperationQueue {
 public:
  /// Shared by the process: up to twice as many operations at once as the machine has processors, default
  /// quality.
  static const std::shared_ptr<LKSOperationQueue>& concurrentBackgroundQueue();
  /// Shared by the process: one operation at a time, utility quality.
  static const std::shared_ptr<LKSOperationQueue>& serialBackgroundQueue();

  void addOperation(std::shared_ptr<platform::Operation> operation) override;
  using platform::OperationQueue::addOperations;
  /// `addOperation` of each, in order.
  void addOperations(const std::vector<std::shared_ptr<platform::Operation>>& operations);
};

}  // namespace larkspan

#pragma once

#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/dispatch/Operation.h"

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace larkspan::platform {

/// Runs operations side by side: of those that are ready the higher priority first, and within a priority in
/// the order they were added.
/// Owner:  std::shared_ptr (it must be owned by one); operations in the queue hold it too, so they all run
///         although the caller drops it. What is in a queue that is dropped suspended stays forever.
/// Thread: any; operations run on pool threads of the queue's quality of service.
class OperationQueue : public Object {
 public:
  static constexpr int kUnlimited = -1;

  OperationQueue() = default;

  /// The queue that runs the operation which the calling thread is in; null otherwise.
  static std::shared_ptr<OperationQueue> current();

  /// Throws std::invalid_argument for null and for an operation that is or was in a queue, executes or is
  /// finished.
  virtual void addOperation(std::shared_ptr<Operation> operation);
  /// Adds them in order without going through the virtual `addOperation()`, and blocks until all are finished
  /// if told to. Throws like `addOperation()`, with the earlier ones added.
  void addOperations(const std::vector<std::shared_ptr<Operation>>& operations, bool waitUntilFinished);

  /// How many operations may execute at a time; `kUnlimited` unless set. Throws std::invalid_argument for
  /// other negative numbers.
  int maxConcurrentOperationCount() const;
  void setMaxConcurrentOperationCount(int count);
  /// Where operations that start from now on run.
  QualityOfService qualityOfService() const;
  void setQualityOfService(QualityOfService quality);
  /// A suspended queue starts no operation; those that execute go on.
  bool isSuspended() const;
  void setSuspended(bool suspended);

  /// Operations in the queue: waiting and executing.
  std::size_t operationCount() const;
  void cancelAllOperations();
  /// Blocks until the queue is empty. Throws std::logic_error in an operation of this queue.
  void waitUntilAllOperationsAreFinished();

 private:
  friend Operation;
  using ReadyKey = std::pair<int, uint64_t>;  // Negated priority, then order.
  struct Entry {
    std::shared_ptr<Operation> operation;
    enum { waiting, ready, started } state = waiting;
    ReadyKey key{};
  };

  void enqueue(std::shared_ptr<Operation> operation);
  void operationIsReady(Operation& operation);
  void operationEnded(Operation& operation);
  void startReady();  // With the mutex held.
  void run(const std::shared_ptr<Operation>& operation);

  mutable std::mutex mutex_;
  std::condition_variable empty_;
  std::unordered_map<Operation*, Entry> entries_;
  std::map<ReadyKey, Operation*> ready_;
  uint64_t lastOrder_ = 0;
  std::size_t started_ = 0;
  int maxConcurrent_ = kUnlimited;
  bool suspended_ = false;
  QualityOfService quality_ = QualityOfService::defaultClass;
};

}  // namespace larkspan::platform

#include "larkspan/platform/dispatch/OperationQueue.h"

#include <gtest/gtest.h>

#include <functional>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>

namespace larkspan::platform {
namespace {

struct BlockOperation : Operation {
  explicit BlockOperation(std::function<void()> block) : block_(std::move(block)) {}
  void main() override { block_(); }
  const std::function<void()> block_;
};

/// Keeps its own state and ends when it is told to.
struct AsynchronousOperation : Operation {
  void start() override {
    startedOn = OperationQueue::current();
    if (isCancelled()) return finish();
    executing = true;
    started.count_down();
  }
  void finish() {
    if (finished) return;
    willChangeValueForKey("isFinished");
    executing = false;
    finished = true;
    didChangeValueForKey("isFinished");
  }
  bool isExecuting() const override { return executing; }
  bool isFinished() const override { return finished; }
  bool isAsynchronous() const override { return true; }

  std::latch started{1};
  std::shared_ptr<OperationQueue> startedOn;
  std::atomic<bool> executing{false}, finished{false};
};

std::shared_ptr<Operation> block(std::function<void()> work = [] {}) {
  return std::make_shared<BlockOperation>(std::move(work));
}

TEST(Operation, AnnouncesItsStatesWhenStartedByHandAndStartsOnce) {
  std::string seen;
  const auto other = block(), operation = block([&] { seen += "main "; });
  std::vector<KeyObservation> observations;
  for (const char* key : {"isExecuting", "isFinished"}) {
    observations.push_back(operation->observe(key, [&, key](KeyChange change) {
      seen += std::string(change == KeyChange::will ? "will " : "did ") + key +
              (operation->isExecuting()  ? " executing, "
               : operation->isFinished() ? " finished, "
                                         : ", ");
    }));
  }
  operation->addDependency(other);
  EXPECT_THROW(operation->start(), std::invalid_argument);
  other->start();
  operation->start();
  EXPECT_EQ(seen,
            "will isExecuting, did isExecuting executing, main will isExecuting executing, will isFinished "
            "executing, did isExecuting finished, did isFinished finished, ");
  EXPECT_TRUE(operation->dependencies().empty());
  EXPECT_THROW(operation->start(), std::invalid_argument);
  EXPECT_THROW(operation->addDependency(operation), std::invalid_argument);
  EXPECT_THROW(operation->addDependency(nullptr), std::invalid_argument);
}

TEST(OperationQueue, StartsByPriorityInOrderOfAdditionAndAfterDependencies) {
  const auto queue = std::make_shared<OperationQueue>();
  queue->setMaxConcurrentOperationCount(1);
  queue->setSuspended(true);
  std::string order;
  std::vector<std::shared_ptr<Operation>> operations;
  using enum QueuePriority;
  for (const QueuePriority priority : {normal, veryLow, veryHigh, normal, high, low, normal}) {
    const char name = static_cast<char>('a' + operations.size());
    operations.push_back(block([&order, name] { order += name; }));
    operations.back()->setQueuePriority(priority);
  }
  operations[2]->addDependency(operations[1]);  // c after b, and g after c;
  operations[6]->addDependency(operations[2]);
  operations[6]->addDependency(operations[4]);
  operations[0]->addDependency(operations[5]);  // a after f, but for this:
  operations[0]->removeDependency(operations[5]);
  queue->addOperations(operations, false);
  EXPECT_EQ(queue->operationCount(), 7u);
  EXPECT_EQ(order, "");
  queue->setSuspended(false);
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(order, "eadfbcg");
  EXPECT_EQ(queue->operationCount(), 0u);
}

TEST(OperationQueue, CountsAnAsynchronousOperationAgainstItsLimitUntilItAnnouncesItsEnd) {
  const auto queue = std::make_shared<OperationQueue>();
  queue->setMaxConcurrentOperationCount(2);
  std::vector<std::shared_ptr<AsynchronousOperation>> operations;
  for (int i = 0; i < 4; ++i) {
    operations.push_back(std::make_shared<AsynchronousOperation>());
    queue->addOperation(operations.back());
  }
  operations[0]->started.wait();
  operations[1]->started.wait();
  EXPECT_EQ(operations[0]->startedOn, queue);
  EXPECT_EQ(OperationQueue::current(), nullptr);
  EXPECT_FALSE(operations[2]->started.try_wait());
  std::jthread([&] { operations[1]->finish(); });
  operations[2]->started.wait();
  operations[1]->finish();  // Nothing changes, so nothing is announced.
  EXPECT_FALSE(operations[3]->started.try_wait());
  EXPECT_EQ(queue->operationCount(), 3u);
  queue->setMaxConcurrentOperationCount(OperationQueue::kUnlimited);
  operations[3]->started.wait();
  for (const auto& operation : operations) operation->finish();
  queue->waitUntilAllOperationsAreFinished();
}

TEST(OperationQueue, FinishesACancelledOperationWhateverItDependsOn) {
  const auto queue = std::make_shared<OperationQueue>();
  const auto never = std::make_shared<AsynchronousOperation>();
  const auto waiting = block([&] { ADD_FAILURE() << "ran"; });
  const auto asynchronous = std::make_shared<AsynchronousOperation>();
  const auto dependent = block();
  waiting->addDependency(never);
  asynchronous->addDependency(never);
  dependent->addDependency(waiting);
  queue->addOperations({waiting, asynchronous, dependent}, false);
  waiting->cancel();
  dependent->waitUntilFinished();
  EXPECT_TRUE(waiting->isFinished() && waiting->isCancelled() && !dependent->isCancelled());
  queue->cancelAllOperations();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(asynchronous->isFinished() && !asynchronous->started.try_wait());
}

}  // namespace
}  // namespace larkspan::platform

#include "larkspan/platform/dispatch/OperationQueue.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>

namespace larkspan::platform {
namespace {

class BlockOperation : public Operation {
 public:
  explicit BlockOperation(std::function<void()> block = [] {}) : block_(std::move(block)) {}
  void main() override { block_(); }

 private:
  std::function<void()> block_;
};

/// Keeps its own state and ends when it is told to.
class AsynchronousOperation : public Operation {
 public:
  void start() override {
    startedOn = OperationQueue::current();
    if (isCancelled()) return finish();
    set(executing_, "isExecuting", true);
    started.count_down();
  }
  void finish() {
    set(executing_, "isExecuting", false);
    set(finished_, "isFinished", true);
  }
  bool isExecuting() const override { return executing_; }
  bool isFinished() const override { return finished_; }
  bool isAsynchronous() const override { return true; }

  std::latch started{1};
  std::shared_ptr<OperationQueue> startedOn;

 private:
  void set(std::atomic<bool>& flag, const char* key, bool value) {
    if (flag == value) return;
    willChangeValueForKey(key);
    flag = value;
    didChangeValueForKey(key);
  }
  std::atomic<bool> executing_{false};
  std::atomic<bool> finished_{false};
};

template <class... Arguments>
std::shared_ptr<BlockOperation> block(Arguments&&... arguments) {
  return std::make_shared<BlockOperation>(std::forward<Arguments>(arguments)...);
}

TEST(Operation, AnnouncesItsStatesWhenStartedByHandAndStartsOnce) {
  std::string seen;
  const auto operation = block([&] { seen += "main "; });
  const auto noteAll = [&](const char* key, bool (Operation::*value)() const) {
    return operation->observe(key, [&, key, value](KeyChange change) {
      seen += std::string(change == KeyChange::will ? "will " : "did ") + key + "=" +
              (((*operation).*value)() ? "1 " : "0 ");
    });
  };
  const auto executing = noteAll("isExecuting", &Operation::isExecuting);
  auto finished = noteAll("isFinished", &Operation::isFinished);
  const auto other = block();
  operation->addDependency(other);
  EXPECT_THROW(operation->start(), std::invalid_argument);
  other->start();
  operation->start();
  EXPECT_EQ(
      seen,
      "will isExecuting=0 did isExecuting=1 main will isExecuting=1 will isFinished=0 did isExecuting=0 "
      "did isFinished=1 ");
  EXPECT_TRUE(operation->dependencies().empty());
  operation->waitUntilFinished();
  EXPECT_THROW(operation->start(), std::invalid_argument);
  EXPECT_THROW(operation->addDependency(operation), std::invalid_argument);
  EXPECT_THROW(operation->addDependency(nullptr), std::invalid_argument);

  seen.clear();
  const auto cancelled = block([&] { seen += "main "; });
  const auto key = cancelled->observe("isFinished", [&](KeyChange) { seen += "change "; });
  const auto dropped = [&] { return cancelled->observe("isFinished", [&](KeyChange) { seen += "never "; }); };
  { const KeyObservation observation = dropped(); }
  cancelled->cancel();
  cancelled->start();
  cancelled->start();
  EXPECT_EQ(seen, "change change ");
  EXPECT_TRUE(cancelled->isFinished());
}

TEST(OperationQueue, StartsByPriorityInOrderOfAdditionAndAfterDependencies) {
  const auto queue = std::make_shared<OperationQueue>();
  queue->setMaxConcurrentOperationCount(1);
  queue->setSuspended(true);
  std::string order;
  std::vector<std::shared_ptr<Operation>> operations;
  const std::pair<char, QueuePriority> table[] = {
      {'a', QueuePriority::normal}, {'b', QueuePriority::veryLow}, {'c', QueuePriority::veryHigh},
      {'d', QueuePriority::normal}, {'e', QueuePriority::high},    {'f', QueuePriority::low},
      {'g', QueuePriority::normal}};
  for (const auto& [name, priority] : table) {
    operations.push_back(block([&order, name = name] { order += name; }));
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

TEST(OperationQueue, HonoursADependencyThatIsAddedWhileQueued) {
  const auto queue = std::make_shared<OperationQueue>();
  queue->setSuspended(true);
  std::string order;
  const auto late = block([&] { order += "late "; });
  const auto first = std::make_shared<AsynchronousOperation>();
  queue->addOperations({late}, false);
  late->addDependency(first);
  queue->setSuspended(false);
  const auto other = std::make_shared<OperationQueue>();
  other->addOperation(first);
  first->started.wait();
  order += "first ";
  first->finish();
  late->waitUntilFinished();
  EXPECT_EQ(order, "first late ");
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
  EXPECT_FALSE(operations[3]->started.try_wait());
  EXPECT_EQ(queue->operationCount(), 3u);
  operations[1]->finish();  // Nothing changes, so nothing is announced.
  EXPECT_FALSE(operations[3]->started.try_wait());
  queue->setMaxConcurrentOperationCount(OperationQueue::kUnlimited);
  operations[3]->started.wait();
  std::jthread finisher([&] {
    for (const auto& operation : operations) operation->finish();
  });
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(queue->operationCount(), 0u);
}

TEST(OperationQueue, FinishesACancelledOperationWhateverItDependsOn) {
  const auto queue = std::make_shared<OperationQueue>();
  const auto never = std::make_shared<AsynchronousOperation>();
  bool ran = false;
  const auto waiting = block([&] { ran = true; });
  const auto asynchronous = std::make_shared<AsynchronousOperation>();
  const auto dependent = block();
  waiting->addDependency(never);
  asynchronous->addDependency(never);
  dependent->addDependency(waiting);
  queue->addOperations({waiting, asynchronous, dependent}, false);
  waiting->cancel();
  waiting->waitUntilFinished();
  dependent->waitUntilFinished();
  EXPECT_FALSE(ran);
  EXPECT_TRUE(waiting->isCancelled() && !dependent->isCancelled());
  queue->cancelAllOperations();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(asynchronous->isFinished());
  EXPECT_FALSE(asynchronous->started.try_wait());
}

TEST(OperationQueue, RefusesMistakesOfItsCaller) {
  const auto queue = std::make_shared<OperationQueue>();
  queue->setSuspended(true);
  const auto queued =
      block([&] { EXPECT_THROW(queue->waitUntilAllOperationsAreFinished(), std::logic_error); });
  const auto finished = block();
  const auto executing = std::make_shared<AsynchronousOperation>();
  queue->addOperation(queued);
  finished->start();
  executing->start();
  for (const std::shared_ptr<Operation>& mistake :
       {std::shared_ptr<Operation>(queued), std::shared_ptr<Operation>(finished),
        std::shared_ptr<Operation>(executing), std::shared_ptr<Operation>()})
    EXPECT_THROW(queue->addOperation(mistake), std::invalid_argument);
  EXPECT_THROW(queue->setMaxConcurrentOperationCount(-2), std::invalid_argument);
  EXPECT_EQ(queue->operationCount(), 1u);
  queue->setSuspended(false);
  queued->waitUntilFinished();
}

TEST(OperationQueue, RunsEverythingOnceUnderManyProducersDependenciesAndCancellations) {
  auto queue = std::make_shared<OperationQueue>();
  queue->setMaxConcurrentOperationCount(4);
  queue->setQualityOfService(QualityOfService::userInitiated);
  std::atomic<int> ran = 0;
  std::atomic<int> running = 0;
  std::atomic<int> tooMany = 0;
  std::atomic<int> cancelled = 0;
  std::vector<std::vector<std::shared_ptr<Operation>>> added(4);
  {
    std::vector<std::jthread> producers;
    for (auto& mine : added)
      producers.emplace_back([&] {
        for (int i = 0; i < 500; ++i) {
          mine.push_back(block([&] {
            tooMany += ++running > 4;
            ++ran;
            --running;
          }));
          if (i % 3 == 0 && i > 0) mine[i]->addDependency(mine[i - 1]);
          queue->addOperation(mine[i]);
          if (i % 7 == 0) {
            mine[i]->cancel();
            ++cancelled;
          }
        }
      });
  }
  queue.reset();  // What is queued runs all the same.
  for (const auto& mine : added)
    for (const auto& operation : mine) operation->waitUntilFinished();
  EXPECT_EQ(tooMany, 0);
  EXPECT_LE(ran, 2000);
  EXPECT_GE(ran, 2000 - cancelled);
}

}  // namespace
}  // namespace larkspan::platform

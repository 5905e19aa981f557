#include "larkspan/platform/base/NotificationCenter.h"
#include "larkspan/platform/dispatch/ManualClock.h"
#include "larkspan/platform/process/HostFacts.h"
#include "larkspan/runtime/HostFacts.h"
#include "larkspan/runtime/LKSBlockOperation.h"
#include "larkspan/runtime/LKSOperationQueue.h"
#include "larkspan/runtime/Log.h"
#include "larkspan/runtime/Throttle.h"
#include "tests/support/CapturedLog.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>

namespace larkspan::tests {
namespace {

using namespace platform;
using namespace std::chrono_literals;

constexpr auto kFinishDelay = 10ms;

/// Writes down everything that happens to one operation.
struct Recorded : LKSOperation {
  std::vector<std::string> steps;
  std::latch ran{1};
  const NotificationCenter::Token token = NotificationCenter::defaultCenter().addObserver(
      std::nullopt, this, [this](const Notification& notification) { steps.push_back(notification.name); });
  std::vector<KeyObservation> observations;

  Recorded() {
    for (const char* key : {"isExecuting", "isFinished"}) {
      observations.push_back(observe(key, [this, key](KeyChange change) {
        steps.push_back((change == KeyChange::will ? "will " : "did ") + std::string(key));
      }));
    }
  }
  void main() override {
    steps.push_back("main");
    ran.count_down();
  }
  void willEnqueueInOperationQueue(const std::shared_ptr<OperationQueue>& queue) override {
    steps.push_back(queue ? "enqueue" : "enqueue in none");
  }
  void willDequeueFromOperationQueue(const std::shared_ptr<OperationQueue>& queue) override {
    steps.push_back(queue ? "dequeue" : "dequeue from none");
  }
};

using Steps = std::vector<std::string>;

TEST(LKSOperation, TakesItsStepsInOrderAndPostsItsEndOnTheMainQueueLater) {
  ManualClock clock;
  CapturedLog log;
  const auto operation = std::make_shared<Recorded>();
  EXPECT_TRUE(operation->isAsynchronous());
  EXPECT_EQ(operation->duration(), 0);
  operation->start();
  EXPECT_EQ(operation->steps,
            (Steps{"LKSOperationWillStartNotification", "will isExecuting", "did isExecuting", "main"}));
  EXPECT_TRUE(operation->isExecuting() && !operation->isFinished());
  EXPECT_EQ(operation->startTime(), 1704067200 - 978307200) << "seconds since 2001";
  EXPECT_EQ(operation->duration(), 0);
  EXPECT_EQ(operation->operationQueue(), nullptr);
  EXPECT_THROW(operation->start(), std::invalid_argument) << "while executing";

  operation->steps.clear();
  clock.advance(2s);
  operation->finishWithError(Error("test", 1, "why"));
  EXPECT_EQ(operation->steps, (Steps{"dequeue from none", "will isExecuting", "did isExecuting",
                                     "will isFinished", "did isFinished"}));
  EXPECT_EQ(operation->duration(), 2);
  EXPECT_EQ(log.system(), Steps{"LKSOperation - finishWithError: Error Domain=test Code=1 \"why\""});
  clock.advance(kFinishDelay - 1ns);
  EXPECT_EQ(operation->steps.back(), "did isFinished");
  clock.advance(1ns);
  EXPECT_EQ(operation->steps.back(), "LKSOperationDidFinishNotification");

  const auto cancelled = std::make_shared<Recorded>();
  cancelled->cancel();
  cancelled->start();
  clock.advance(kFinishDelay);
  EXPECT_EQ(cancelled->steps, (Steps{"dequeue from none", "will isFinished", "did isFinished",
                                     "LKSOperationDidFinishNotification"}));

  // Nothing guards against a second end: it overwrites, and posts again, without a further change.
  operation->steps.clear();
  operation->finishWithError(std::nullopt);
  EXPECT_FALSE(operation->error());
  clock.advance(kFinishDelay);
  EXPECT_EQ(operation->steps, (Steps{"dequeue from none", "LKSOperationDidFinishNotification"}));
  EXPECT_EQ(log.system().size(), 1u) << "success is not logged";
  EXPECT_THROW(operation->start(), std::invalid_argument);
}

TEST(LKSOperationQueue, TellsOperationsThatTheyAreQueuedAndWhichQueueRanThem) {
  ManualClock clock;
  const auto queue = std::make_shared<LKSOperationQueue>();
  const auto first = std::make_shared<Recorded>(), unhooked = std::make_shared<Recorded>();
  const auto block = [](auto work) { return std::make_shared<LKSBlockOperation>(work); };
  const auto empty = std::make_shared<LKSBlockOperation>();
  const auto later = block([](LKSBlockOperation& self) { self.finishWithError(Error("test", 2)); });
  const auto throwing = block([](LKSBlockOperation&) { throw std::runtime_error("broken"); });
  queue->setSuspended(true);
  queue->addOperations({first, std::make_shared<Operation>(), empty, later, throwing});
  EXPECT_EQ(first->steps, Steps{"enqueue"});
  queue->setSuspended(false);
  for (const auto& operation : {empty, later, throwing}) operation->waitUntilFinished();
  EXPECT_FALSE(empty->error());
  EXPECT_EQ(throwing->error().value().localizedDescription(), "broken");
  EXPECT_EQ(later->error(), Error("test", 2));
  EXPECT_EQ(later->operationQueue(), queue);
  first->ran.wait();
  first->finishWithError(std::nullopt);
  unhooked->cancel();
  queue->addOperations({unhooked}, true);
  queue->waitUntilAllOperationsAreFinished();
  clock.advance(kFinishDelay);  // Until no thread is at it any more.
  EXPECT_EQ(std::count(first->steps.begin(), first->steps.end(), "dequeue"), 1);
  EXPECT_EQ(std::count(unhooked->steps.begin(), unhooked->steps.end(), "enqueue"), 0);
}

TEST(Log, WritesWholeMessagesToOneChannel) {
  CapturedLog log;
  LKSLogFault("secret %@", std::string(3000, 'x'));
  LKSLogDuration("Sizing", 12345.678);
  LKSLogSize(1'500'000, "Documents");
  EXPECT_EQ(log.system(), (Steps{"secret " + std::string(3000, 'x'), "Sizing completed in 12345.68 sec",
                                 "1.5 MB: Documents"}));
  EXPECT_EQ(log.lines().back(), "corvane.storage/log: 1.5 MB: Documents");
}

TEST(HostFacts, AreWhatTheMachineSaysAndErrorsFlattenToTheirTexts) {
  const ScopedHostFacts facts({4, true, "12.1", std::nullopt});
  EXPECT_TRUE(LKSStorageIsInternalInstall() && !LKSStorageProductType());
  EXPECT_EQ(LKSStorageProductVersion(), "12.1");
  const std::string release = "# comment\nVERSION_IDX=1\nVERSION_ID=\"12 \\\"x\\\"\"\nEMPTY=\n";
  EXPECT_EQ(osReleaseValue(release, "VERSION_ID"), "12 \"x\"");
  EXPECT_EQ(osReleaseValue(release, "EMPTY"), std::nullopt);
  EXPECT_TRUE(LKSStorageIsUserVolumeMountPath("/System/Volumes/Database"));
  EXPECT_FALSE(LKSStorageIsUserVolumeMountPath("/system/volumes/data"));

  const Dictionary text{{kLocalizedDescriptionKey, "what"}};
  Dictionary more = text;
  more.set("other", 1);
  EXPECT_EQ(LKSConvertNSErrorToDictionary(Error("d", 1, more)), text);
  EXPECT_EQ(LKSConvertNSErrorToDictionary(Error("d", 1)).size(), 1u) << "there is always a description";
}

TEST(Throttle, RunsOnlyTheLastBlockOfABurstADelayAfterItAndNoneWithoutAKey) {
  const CapturedLog log;
  ManualClock clock;
  std::string ran;
  const auto throttle = [&ran](const std::optional<std::string>& key, const char* text, double delay) {
    ThrottleOnMainQueue(
        key, [&ran, text] { ran += text; }, delay);
  };
  throttle({}, "never", 0);
  EXPECT_EQ(log.console(), Steps{"sp_throttleOnMainQueue: uuid can not be nil"});
  throttle("key", "a", 1);
  clock.advance(100ms);
  throttle("key", "b", 1);
  std::jthread([&] { throttle("other", "x", 1.25); }).join();
  clock.advance(100ms);
  throttle("key", "c", 1);
  clock.advance(999ms);
  EXPECT_EQ(ran, "");
  EXPECT_EQ(DispatchSourcesDictionary().size(), 2u);
  clock.advance(1ms);
  EXPECT_EQ(ran, "c");
  EXPECT_EQ(DispatchSourcesDictionary().count("key"), 0u);
  clock.advance(1s);
  EXPECT_EQ(ran, "cx");
  EXPECT_TRUE(DispatchSourcesDictionary().empty());
  // A block that throttles its own key starts afresh.
  ThrottleOnMainQueue(
      "key", [&] { throttle("key", "d", 1); }, 0);
  EXPECT_EQ(ran, "cx") << "returns at once";
  clock.advance(0s);
  EXPECT_EQ(ran, "cx");
  clock.advance(1s);
  EXPECT_EQ(ran, "cxd");

  const auto repeating = StartedDispatchTimer(
      true, DispatchQueue::makeSerial("test.started"), [&] { ran += "r"; }, 2);
  clock.advance(7s);
  repeating->cancel();
  clock.advance(7s);
  EXPECT_EQ(ran, "cxdrrr") << "a started timer repeats until it is cancelled";
}

}  // namespace
}  // namespace larkspan::tests

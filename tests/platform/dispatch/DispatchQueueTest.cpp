#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/dispatch/Thread.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <semaphore>
#include <stdexcept>
#include <thread>
#include <vector>

#include <poll.h>
#include <sched.h>

namespace larkspan::platform {
namespace {

TEST(SerialQueue, KeepsTheOrderOfEachProducerAndRunsOneTaskAtATime) {
  constexpr int kProducers = 8, kTasks = 5000;
  const auto queue = DispatchQueue::makeSerial("test.serial");
  // Unguarded on purpose: tasks that overlapped would lose counts, and the thread sanitizer would say so.
  std::array<int, kProducers> next{};
  int misplaced = 0;
  std::vector<std::jthread> producers;
  for (int producer = 0; producer < kProducers; ++producer)
    producers.emplace_back([&, producer] {
      for (int i = 0; i < kTasks; ++i) {
        auto task = [&, producer, i] { misplaced += next[producer]++ != i; };
        i % 50 == 7 ? queue->sync(task) : queue->async(task);
      }
    });
  producers.clear();
  queue->sync([] {});
  EXPECT_EQ(misplaced, 0);
  for (const int count : next) EXPECT_EQ(count, kTasks);
}

TEST(SerialQueue, DestroysWhatATaskCapturedBeforeTheNextTaskStartsThoughItsLastHandleIsDropped) {
  std::promise<bool> gone;
  {
    const auto queue = DispatchQueue::makeSerial("test.captures");
    auto captured = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = captured;
    queue->async([captured = std::move(captured)] {});
    queue->async([&gone, watched] { gone.set_value(watched.expired()); });
  }
  EXPECT_TRUE(gone.get_future().get());
}

TEST(DispatchQueue, KnowsWhichQueuesTheThreadIsRunning) {
  const auto outer = DispatchQueue::makeSerial("test.outer");
  const auto busyInner = DispatchQueue::makeSerial("test.inner");
  std::binary_semaphore release(0);
  busyInner->async([&release] { release.acquire(); });  // So that `sync` cannot run inline.
  EXPECT_FALSE(outer->isCurrent());
  outer->sync([&] {
    EXPECT_TRUE(outer->isCurrent());
    EXPECT_THROW(outer->sync([] {}), std::logic_error);
    std::jthread releaser([&release] { release.release(); });
    busyInner->sync([&] {
      EXPECT_TRUE(busyInner->isCurrent());
      EXPECT_TRUE(outer->isCurrent()) << "held by the caller that waits";
      EXPECT_THROW(outer->sync([] {}), std::logic_error);
    });
  });
}

TEST(WorkerPool, GrowsToItsLimitWhileTasksAreBlockedAndNoFurther) {
  constexpr int kTasks = 200;
  for (const auto quality : {QualityOfService::defaultClass, QualityOfService::utility}) {
    const auto queue = DispatchQueue::global(quality);
    std::counting_semaphore<kTasks> started(0);
    std::atomic<int> running = 0, most = 0;
    std::atomic<bool> released = false;
    std::latch ended(kTasks);
    for (int i = 0; i < kTasks; ++i)
      queue->async([&, spins = i < 4] {
        EXPECT_EQ(isLowPriorityThread(), quality == QualityOfService::utility);
        const int now = ++running;
        for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) continue;
        started.release();
        // A look at the threads' states does not show those that spin as blocked.
        while (spins && running < 8) sched_yield();
        released.wait(false);
        --running;
        ended.count_down();
      });
    for (int i = 0; i < 64; ++i) started.acquire();
    released = true;
    released.notify_all();
    ended.wait();
    EXPECT_EQ(most, 64);
  }
}

TEST(MainQueue, RunsTasksOnTheInitialThreadUntilStopped) {
  const auto main = DispatchQueue::main();
  std::vector<int> order;
  std::jthread poster([&, initial = std::this_thread::get_id()] {
    main->async([&] { order.push_back(1); });
    main->sync([&] {
      EXPECT_EQ(std::this_thread::get_id(), initial);
      EXPECT_THROW(runMainQueue(), std::logic_error);
      EXPECT_THROW(main->sync([] {}), std::logic_error);
      order.push_back(2);
    });
    EXPECT_THROW(runMainQueue(), std::logic_error);
    EXPECT_THROW(drainMainQueue(), std::logic_error);
    main->async([] { stopMainQueue(); });
  });
  runMainQueue();
  EXPECT_EQ(order, (std::vector{1, 2}));
  stopMainQueue();
  runMainQueue();  // The stop came first and is not lost.
}

TEST(MainQueue, AnnouncesItsTasksToAForeignEventLoop) {
  const auto isAnnounced = [] {
    pollfd watched{mainQueueDescriptor(), POLLIN, 0};
    return poll(&watched, 1, 0) == 1;
  };
  drainMainQueue();
  int ran = 0;
  for (int i = 0; i < 3; ++i)
    DispatchQueue::main()->async([&ran] {
      ++ran;
      DispatchQueue::main()->async([&ran] { ran += 10; });
    });
  EXPECT_TRUE(isAnnounced());
  EXPECT_EQ(drainMainQueue(), 3u) << "not those which the tasks add";
  EXPECT_TRUE(isAnnounced());
  DispatchQueue::main()->sync([&ran] { ran += 100; });  // Runs those before it as well.
  EXPECT_EQ(ran, 133);
  EXPECT_FALSE(isAnnounced() && drainMainQueue() != 0);
}

}  // namespace
}  // namespace larkspan::platform

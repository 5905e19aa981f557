#include "larkspan/platform/dispatch/IoSource.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <thread>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

struct Event {
  ~Event() { close(descriptor); }
  const int descriptor = eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);  // Ready from the start.
};

/// Waits for a round of the thread that begins after this call.
void awaitRound() {
  const Event event;
  std::promise<void> over;
  const auto probe = IoSource::make(event.descriptor, EPOLLIN, [&](uint32_t) {
    IoSource::pause(std::chrono::hours(1));
    over.set_value();
  });
  over.get_future().get();
}

TEST(IoSource, ReportsReadinessUntilItIsConsumedPausedOrCancelled) {
  const Event event;
  std::latch twice(2);
  std::atomic<int> calls = 0;
  std::shared_ptr<IoSource> source;
  source = IoSource::make(event.descriptor, 0, [&](uint32_t events) {
    EXPECT_TRUE(isIoThread());
    EXPECT_EQ(events, uint32_t{EPOLLIN});
    if (++calls == 2) source->setEvents(0);  // Level-triggered: the same readiness is told twice.
    twice.count_down();
  });
  EXPECT_FALSE(isIoThread());
  source->setEvents(EPOLLIN);
  twice.wait();
  awaitRound();
  EXPECT_EQ(calls, 2);
  source->cancel();
  source->cancel();
  source->setEvents(EPOLLIN);
  awaitRound();
  EXPECT_EQ(calls, 2);
}

TEST(IoSource, IsSilentOnceCancelledOrDroppedAlthoughTheDescriptorIsReusedAtOnce) {
  const Event flood;  // Keeps the thread in rounds of its own.
  std::atomic<long> rounds = 0;
  const auto flooding = IoSource::make(flood.descriptor, EPOLLIN, [&](uint32_t) {
    ++rounds;
    rounds.notify_one();
  });
  std::atomic<int> wrong = 0;
  int number = -1;
  for (int round = 0; round < 2000; ++round) {
    const Event event;  // The same number every time.
    if (number < 0) number = event.descriptor;
    ASSERT_EQ(event.descriptor, number);
    auto alive = std::make_unique<std::atomic<bool>>(true);
    auto source =
        IoSource::make(event.descriptor, EPOLLIN, [&wrong, raw = alive.get()](uint32_t) { wrong += !*raw; });
    std::jthread second;
    if (round % 8 == 0) second = std::jthread([source] { source->cancel(); });
    if (round % 3 == 0) rounds.wait(rounds);
    if (round % 2) source->cancel();
    source.reset();  // The other thread may hold it still.
    if (second.joinable()) second.join();
    *alive = false;
    alive.reset();  // A handler that still ran would touch freed memory.
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace larkspan::platform

#include "larkspan/platform/dispatch/ManualClock.h"
#include "larkspan/platform/dispatch/Timer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <future>
#include <utility>
#include <vector>

namespace larkspan::platform {
namespace {

using namespace std::chrono_literals;
using Nanoseconds = std::chrono::nanoseconds;

class ManualTimer : public testing::Test {
 protected:
  /// Makes a timer that notes its number and the time since the start of the test.
  std::shared_ptr<Timer> noting(int number, Nanoseconds delay, Nanoseconds interval = Timer::kNever,
                                Nanoseconds leeway = 0ns) {
    return Timer::make(queue, delay, interval, leeway, [this, number] { note(number); });
  }
  void note(int number) { fired.emplace_back(number, clock.monotonicNow() - start); }

  using Fired = std::vector<std::pair<int, Nanoseconds>>;
  ManualClock clock;
  const MonotonicTime start = clock.monotonicNow();
  const std::shared_ptr<DispatchQueue> queue = DispatchQueue::makeSerial("test.timers");
  Fired fired;
};

TEST_F(ManualTimer, FiresInOrderAndNeverEarly) {
  const auto late = noting(2, 2s);
  const auto first = noting(1, 1s);
  const auto repeating = noting(3, 500ms, 1s);
  queue->after(1s, [this] { note(4); });
  clock.advance(500ms - 1ns);
  EXPECT_EQ(fired, Fired());
  clock.advance(1ns);
  EXPECT_EQ(fired, (Fired{{3, 500ms}}));
  clock.advance(2s);
  EXPECT_EQ(fired, (Fired{{3, 500ms}, {1, 1s}, {4, 1s}, {3, 1500ms}, {2, 2s}, {3, 2500ms}}));
  EXPECT_EQ(clock.monotonicNow() - start, 2500ms);
  EXPECT_EQ(clock.wallNow(), 1704067202500ms);
  repeating->cancel();
  clock.advance(1h);
  EXPECT_EQ(fired.size(), 6u);
}

TEST_F(ManualTimer, UsesLeewayOnlyToJoinAnotherTimer) {
  const auto alone = noting(1, 1s, Timer::kNever, 1s);
  clock.advance(1s);
  EXPECT_EQ(fired, (Fired{{1, 1s}}));

  fired.clear();
  const auto joins = noting(1, 1s, Timer::kNever, 1s);       // At 2 s, may wait until 3 s,
  const auto strict = noting(2, 1500ms);                     // joins this one,
  const auto loose = noting(3, 1200ms, Timer::kNever, 5s);   // and so does this,
  const auto beyond = noting(4, 1900ms, Timer::kNever, 1s);  // but none waits for this.
  clock.advance(1100ms);
  EXPECT_EQ(fired, (Fired{{1, 2s}})) << "nothing to join within the time that passes";
  clock.advance(2s);
  EXPECT_EQ(fired, (Fired{{1, 2s}, {3, 2500ms}, {2, 2500ms}, {4, 2900ms}}));
}

TEST_F(ManualTimer, StopsWhenCancelledOrDropped) {
  auto captured = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = captured;
  std::shared_ptr<Timer> self, submitted;
  self = Timer::make(queue, 1s, 1s, 0ns, [this, &self, captured = std::move(captured)] {
    note(1);
    self->cancel();
    EXPECT_EQ(captured.use_count(), 1) << "kept while the handler runs";
  });
  auto dropsItself = std::make_shared<std::shared_ptr<Timer>>();
  *dropsItself = Timer::make(queue, 2s, 1s, 0ns, [this, dropsItself] {
    dropsItself->reset();
    note(2);
  });
  noting(3, 1s).reset();
  // Cancelled when it is submitted but has not run.
  const auto canceller = Timer::make(queue, 3s, Timer::kNever, 0ns, [&] { submitted->cancel(); });
  submitted = noting(4, 3s);
  clock.advance(5s);
  EXPECT_EQ(fired, (Fired{{1, 1s}, {2, 2s}}));
  EXPECT_TRUE(self->isCancelled() && watched.expired());
}

TEST_F(ManualTimer, LeavesOutTheTimesItMissedAndKeepsToItsGrid) {
  const auto joins = noting(1, 1s, 1s, 10s);
  const auto joined = noting(2, 5500ms);
  const auto endless = noting(3, Nanoseconds::max(), Nanoseconds::max() - 1ns);
  const auto negative = noting(4, -5s, Timer::kNever, -1s);
  clock.advance(7s);
  EXPECT_EQ(fired, (Fired{{4, 0s}, {1, 5500ms}, {2, 5500ms}, {1, 6s}, {1, 7s}}));
}

TEST(Timer, FiresOnTheSystemClockAndNotEarly) {
  const MonotonicTime start = Clock::current().monotonicNow();
  std::promise<MonotonicTime> fired;
  int count = 0;
  const auto repeating = Timer::make(DispatchQueue::makeSerial("test.system"), 1ms, 1ms, 1h, [&] {
    if (++count == 3) fired.set_value(Clock::current().monotonicNow());
  });
  EXPECT_GE(fired.get_future().get() - start, 3ms);
}

TEST(Clock, TurnsSecondsIntoNanosecondsByTruncation) {
  for (const auto& [seconds, expected] :
       {std::pair(1.9999999999, 1999999999ns), {-1e300, Nanoseconds::min()}, {std::nan(""), 0ns}})
    EXPECT_EQ(nanosecondsFromSeconds(seconds), expected) << seconds;
}

}  // namespace
}  // namespace larkspan::platform

#include "larkspan/platform/dispatch/ManualClock.h"
#include "larkspan/runtime/Throttle.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace larkspan {
namespace {

using namespace std::chrono_literals;
using platform::DispatchQueue;

class Throttle : public testing::Test {
 protected:
  void throttle(const std::string& key, const std::string& text, double delay) {
    ThrottleOnMainQueue(
        key, [this, text] { ran += text; }, delay);
  }
  platform::ManualClock clock;
  std::string ran;
};

TEST_F(Throttle, RunsOnlyTheLastBlockOfABurstADelayAfterIt) {
  throttle("key", "a", 1);
  clock.advance(100ms);
  throttle("key", "b", 1);
  std::jthread([this] { throttle("other", "x", 1.25); }).join();
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
  throttle("key", "d", 0);
  EXPECT_EQ(ran, "cx") << "returns at once";
  clock.advance(0s);
  EXPECT_EQ(ran, "cxd");
}

TEST_F(Throttle, StartsAfreshWhenTheBlockThrottlesItsOwnKey) {
  ThrottleOnMainQueue(
      "key",
      [this] {
        EXPECT_EQ(DispatchSourcesDictionary().count("key"), 1u);
        throttle("key", "second", 1);
      },
      1);
  clock.advance(1s);
  EXPECT_EQ(ran, "");
  clock.advance(1s);
  EXPECT_EQ(ran, "second");
}

TEST_F(Throttle, DropsTheBlockAndSaysSoWithoutAKey) {
  const auto captured = std::make_shared<int>(0);
  testing::internal::CaptureStderr();
  ThrottleOnMainQueue(
      std::nullopt, [this, captured] { ran += "never"; }, 0);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("sp_throttleOnMainQueue: uuid can not be nil\n"),
            std::string::npos);
  EXPECT_EQ(captured.use_count(), 1);
  clock.advance(10s);
  EXPECT_EQ(ran, "");
}

TEST_F(Throttle, AStartedTimerRepeatsUntilCancelledOrFiresOnce) {
  const auto queue = DispatchQueue::makeSerial("test.started");
  const auto once = StartedDispatchTimer(
      false, queue, [this] { ran += "o"; }, 0.5);
  const auto repeating = StartedDispatchTimer(
      true, queue, [this] { ran += "r"; }, 2);
  clock.advance(7s);
  EXPECT_EQ(ran, "orrr");
  repeating->cancel();
  clock.advance(7s);
  EXPECT_EQ(ran, "orrr");
}

}  // namespace
}  // namespace larkspan

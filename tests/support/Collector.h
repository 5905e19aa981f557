#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace larkspan::tests {

/// Collects what comes in on other threads and waits for it, without ever sleeping a fixed time.
template <typename T>
class Collector {
 public:
  void push(T value) {
    const std::lock_guard lock(mutex_);
    values_.push_back(std::move(value));
    changed_.notify_all();
  }
  /// All that came once there are `count` of them; fails the test when there are fewer after ten seconds.
  std::vector<T> waitFor(std::size_t count) {
    auto all = waitUntil([count](const auto& values) { return values.size() >= count; });
    EXPECT_GE(all.size(), count);
    return all;
  }
  /// All that came once that is enough, or when ten seconds have passed.
  template <typename Condition>
  std::vector<T> waitUntil(Condition isEnough) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return isEnough(values_); });
    return values_;
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    values_.clear();
  }
  std::vector<T> now() {
    const std::lock_guard lock(mutex_);
    return values_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<T> values_;
};

}  // namespace larkspan::tests

#pragma once

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
  /// All that came once there are `count` of them, or when ten seconds have passed.
  std::vector<T> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return values_.size() >= count; });
    return values_;
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

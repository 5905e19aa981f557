#pragma once

#include <atomic>
#include <cstdint>

namespace larkspan::platform {

/// The sum of two counts of which one at most is negative; INT64_MAX where it does not fit.
inline int64_t saturatingSum(int64_t a, int64_t b) {
  int64_t sum;
  return __builtin_add_overflow(a, b, &sum) ? INT64_MAX : sum;
}

/// Adds likewise to a count that several threads add to.
inline void addSaturating(std::atomic<int64_t>& count, int64_t more) {
  int64_t before = count.load(std::memory_order_relaxed);
  while (!count.compare_exchange_weak(before, saturatingSum(before, more), std::memory_order_relaxed)) {
  }
}

}  // namespace larkspan::platform

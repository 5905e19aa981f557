// A million tasks that one thread submits, to our queues and to GLib's thread pools.

#include "larkspan/platform/dispatch/DispatchQueue.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include <glib.h>

namespace larkspan::benchmarks {
namespace {

constexpr int64_t kTasks = 1'000'000;

/// How many tasks have run, counted by each thread on a cache line of its own: a counter that all shared would
/// cost more than what is measured.
class Runs {
 public:
  static void count() {
    thread_local std::atomic<int64_t>& mine = add();
    mine.store(mine.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }
  static int64_t sum() {
    const std::lock_guard lock(mutex_);
    int64_t total = 0;
    for (const Counter& counter : counters_) total += counter.runs.load(std::memory_order_acquire);
    return total;
  }
  static void waitFor(int64_t total) {
    while (sum() < total) std::this_thread::sleep_for(std::chrono::microseconds(100));
  }

 private:
  struct alignas(128) Counter {
    std::atomic<int64_t> runs{0};
  };
  static std::atomic<int64_t>& add() {
    const std::lock_guard lock(mutex_);
    return counters_.emplace_back().runs;
  }
  static inline std::mutex mutex_;
  static inline std::list<Counter> counters_;
};

void larkspanQueue(benchmark::State& state, const std::shared_ptr<platform::DispatchQueue>& queue) {
  for (auto _ : state) {
    const int64_t before = Runs::sum();
    for (int64_t i = 0; i < kTasks; ++i) queue->async(&Runs::count);
    Runs::waitFor(before + kTasks);
  }
}
BENCHMARK_CAPTURE(larkspanQueue, serial, platform::DispatchQueue::makeSerial("benchmark"))
    ->Name("serial/larkspan")
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(larkspanQueue, pool, platform::DispatchQueue::global())
    ->Name("pool/larkspan")
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

void glibPool(benchmark::State& state, int threads) {
  GThreadPool* const pool =
      g_thread_pool_new([](gpointer, gpointer) { Runs::count(); }, nullptr, threads, true, nullptr);
  for (auto _ : state) {
    const int64_t before = Runs::sum();
    for (int64_t i = 0; i < kTasks; ++i) g_thread_pool_push(pool, pool, nullptr);
    Runs::waitFor(before + kTasks);
  }
  g_thread_pool_free(pool, false, true);
}
BENCHMARK_CAPTURE(glibPool, serial, 1)->Name("serial/glib")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(glibPool, pool, static_cast<int>(g_get_num_processors()))
    ->Name("pool/glib")
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace larkspan::benchmarks

// A million tasks that one thread submits, to our queues and to GLib's thread pools.

#include "larkspan/platform/dispatch/DispatchQueue.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <future>
#include <memory>

#include <glib.h>

namespace larkspan::benchmarks {
namespace {

constexpr int kTasks = 1'000'000;

struct Countdown {
  std::atomic<int> left{kTasks};
  std::promise<void> done;
  void count() {
    if (left.fetch_sub(1, std::memory_order_acq_rel) == 1) done.set_value();
  }
};

void larkspanQueue(benchmark::State& state, const std::shared_ptr<platform::DispatchQueue>& queue) {
  for (auto _ : state) {
    Countdown countdown;
    for (int i = 0; i < kTasks; ++i) queue->async([&countdown] { countdown.count(); });
    countdown.done.get_future().wait();
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
      g_thread_pool_new([](gpointer task, gpointer) { static_cast<Countdown*>(task)->count(); }, nullptr,
                        threads, true, nullptr);
  for (auto _ : state) {
    Countdown countdown;
    for (int i = 0; i < kTasks; ++i) g_thread_pool_push(pool, &countdown, nullptr);
    countdown.done.get_future().wait();
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

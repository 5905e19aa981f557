// What the road of a command costs: an exchange and a large answer over a real socket, the archive of that answer, and a
// task through a queue. The raw round trip measures what the machine itself takes, in the same run.

#include "larkspan/items/LKSCommand.h"
#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "tests/support/InProcessExtension.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <future>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

namespace larkspan {
namespace {

/// A resource of ten fields.
LKSResource sampleResource(int number) {
  LKSResource item = LKSResource::initLKSResourceItemWithName("Resource number " + std::to_string(number));
  item.setLks_URL(platform::URL::file("/home/user/.cache/application/" + std::to_string(number)));
  item.setLks_category("applications");
  item.setLks_size(number * int64_t{4096});
  item.setLks_dateCreated(platform::Date{1'700'000'000 + number, 5});
  item.setLks_dateModified(platform::Date{1'700'000'000 + number, 6});
  item.setLks_dateLastOpened(platform::Date{1'700'000'000 + number, 7});
  item.setLks_deletable(true);
  item.setLks_revealable(true);
  return item;
}

struct Resources : LKSExtension {
  explicit Resources(int count) {
    for (int i = 0; i < count; ++i) items.push_back(sampleResource(i));
  }
  std::vector<LKSResource> resourceItems() override { return items; }
  std::vector<LKSResource> items;
};

/// From the handle to the provider's operation and back; the argument is the number of items in the answer.
void exchange(benchmark::State& state) {
  const auto launcher = std::make_shared<tests::InProcessExtension>(
      std::make_shared<Resources>(static_cast<int>(state.range(0))));
  const platform::ScopedLauncher installed(launcher);
  const auto handle = tests::handleFor("benchmark " + std::to_string(state.range(0)));
  const Items request{*LKSCommand::initLKSCommandItem(kCmdResources)};
  for (auto _ : state) {
    std::promise<std::size_t> answered;
    handle->processInputItems(
        request, [&](const auto& items, const auto&) { answered.set_value(items ? items->size() : 0); });
    if (answered.get_future().get() != static_cast<std::size_t>(state.range(0)) + 1)
      return state.SkipWithError("no answer");
  }
}
BENCHMARK(exchange)->Arg(0)->Arg(10'000)->UseRealTime()->Unit(benchmark::kMicrosecond);

/// 100 bytes each way over a socket pair between two threads that do nothing else.
void rawRoundTrip(benchmark::State& state) {
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) return state.SkipWithError("no sockets");
  std::thread peer([socket = sockets[1]] {
    char bytes[100];
    while (recv(socket, bytes, sizeof bytes, MSG_WAITALL) == sizeof bytes)
      send(socket, bytes, sizeof bytes, MSG_NOSIGNAL);
  });
  char bytes[100] = {};
  for (auto _ : state) {
    send(sockets[0], bytes, sizeof bytes, MSG_NOSIGNAL);
    if (recv(sockets[0], bytes, sizeof bytes, MSG_WAITALL) != sizeof bytes)
      return state.SkipWithError("no answer");
  }
  close(sockets[0]);
  peer.join();
  close(sockets[1]);
}
BENCHMARK(rawRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);

void archiveTenThousandItems(benchmark::State& state) {
  const Resources resources(10'000);
  const platform::Array items = arrayFromItems(Items(resources.items.begin(), resources.items.end()));
  std::size_t bytes = 0;
  for (auto _ : state) {
    const auto archive = platform::KeyedArchiver::archivedData(items);
    bytes = archive.data.bytes.size();
    const auto read = platform::KeyedUnarchiver::unarchivedValue(
        archive.data, LKSHostExtensionContext::extensionItemClasses());
    if (read.error) return state.SkipWithError("not read back");
  }
  state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(archiveTenThousandItems)->Unit(benchmark::kMillisecond);

/// A million tasks that one thread submits.
void queue(benchmark::State& state, const std::shared_ptr<platform::DispatchQueue>& where) {
  constexpr int kTasks = 1'000'000;
  for (auto _ : state) {
    std::atomic<int> left{kTasks};
    std::promise<void> done;
    for (int i = 0; i < kTasks; ++i) {
      where->async([&] {
        if (--left == 0) done.set_value();
      });
    }
    done.get_future().wait();
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}
BENCHMARK_CAPTURE(queue, serial, platform::DispatchQueue::makeSerial("benchmark"))
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(queue, pool, platform::DispatchQueue::global())
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace larkspan

int main(int argc, char** argv) {
  setenv("LARKSPAN_LOG", "none", 1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}

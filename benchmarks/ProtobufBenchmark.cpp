// Encoding and decoding the same items with protobuf, on an arena.

#include <benchmark/benchmark.h>

#include <google/protobuf/arena.h>
#include <storage.pb.h>

#include "benchmarks/Sample.h"

namespace larkspan::benchmarks {
namespace {

void protobuf(benchmark::State& state) {
  google::protobuf::Arena own;
  auto* const items = google::protobuf::Arena::CreateMessage<peers::Items>(&own);
  for (const Sample& from : samples(kItems)) {
    peers::Item& item = *items->add_items();
    item.set_kind(from.kind);
    item.set_name(from.name);
    item.set_url(from.url);
    item.set_category(from.category);
    item.set_size(from.size);
    uint32_t nanoseconds = 5;
    for (peers::Date* date : {item.mutable_created(), item.mutable_modified(), item.mutable_opened()}) {
      date->set_seconds(from.seconds);
      date->set_nanoseconds(nanoseconds++);
    }
    item.set_deletable(true);
    item.set_revealable(true);
  }
  const int64_t expected = expectedSum(kItems);
  for (auto _ : state) {
    const std::string bytes = items->SerializeAsString();
    google::protobuf::Arena arena;
    auto* const read = google::protobuf::Arena::CreateMessage<peers::Items>(&arena);
    int64_t sum = 0;
    if (read->ParseFromString(bytes))
      for (const peers::Item& item : read->items()) sum += item.size();
    if (sum != expected) return state.SkipWithError("not read back");
  }
}
BENCHMARK(protobuf)->Name("archive/protobuf")->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace larkspan::benchmarks

// Encoding and decoding the same items with protobuf, on an arena.

#include <benchmark/benchmark.h>

#include <google/protobuf/arena.h>
#include <storage.pb.h>

#include "benchmarks/Sample.h"

namespace larkspan::benchmarks {
namespace {

void write(peers::Date& to, const platform::Date& date) {
  to.set_seconds(date.seconds);
  to.set_nanoseconds(date.nanoseconds);
}

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
    write(*item.mutable_created(), from.created);
    write(*item.mutable_modified(), from.modified);
    write(*item.mutable_opened(), from.opened);
    item.set_deletable(from.deletable);
    item.set_revealable(from.revealable);
  }
  const auto reads = static_cast<Reads>(state.range(0));
  const Sum expected = expectedSum(kItems, reads);
  for (auto _ : state) {
    const std::string bytes = items->SerializeAsString();
    google::protobuf::Arena arena;
    auto* const read = google::protobuf::Arena::CreateMessage<peers::Items>(&arena);
    if (!read->ParseFromString(bytes)) return state.SkipWithError("not parsed");
    Sum sum;
    for (const peers::Item& item : read->items()) {
      sum.size(item.size());
      if (reads == Reads::sizes) continue;
      for (const std::string* text : {&item.kind(), &item.name(), &item.url(), &item.category()})
        sum.text(text->size());
      for (const peers::Date* date : {&item.created(), &item.modified(), &item.opened()})
        sum.date(date->seconds(), date->nanoseconds());
      sum.flags(item.deletable(), item.revealable());
    }
    if (sum != expected) return state.SkipWithError("not read back");
  }
}
BENCHMARK(protobuf)->Name("archive/protobuf")->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(protobuf)->Name("archive-read/protobuf")->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace larkspan::benchmarks

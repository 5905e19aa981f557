// The road of a command: from the handle to the provider's operation in a process of its own and back, what
// the answer's archive costs, and how long it takes to find the extensions.

#include "larkspan/host/LKSHostExtensionContext.h"
#include "larkspan/host/LKSOpaqueExtension.h"
#include "larkspan/items/LKSCommand.h"
#include "larkspan/items/LKSResource.h"
#include "larkspan/platform/appext/ExtensionMatcher.h"
#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "larkspan/provider/ExtensionMain.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>

#include <fcntl.h>
#include <unistd.h>

#include "benchmarks/Peer.h"
#include "benchmarks/Sample.h"

namespace larkspan::benchmarks {

namespace {

LKSResource resource(const Sample& from) {
  LKSResource item = LKSResource::initLKSResourceItemWithName(from.name);
  item.setLks_URL(*platform::URL::parse(from.url));
  item.setLks_category(from.category);
  item.setLks_size(from.size);
  item.setLks_dateCreated(from.created);
  item.setLks_dateModified(from.modified);
  item.setLks_dateLastOpened(from.opened);
  item.setLks_deletable(from.deletable);
  item.setLks_revealable(from.revealable);
  return item;
}

struct Resources : LKSExtension {
  explicit Resources(int count) {
    for (const Sample& from : samples(count)) items.push_back(resource(from));
  }
  std::vector<LKSResource> resourceItems() override { return items; }
  std::vector<LKSResource> items;
};

/// Of the resources; an answer begins with the command item.
Sum sumOf(const Items& items, Reads reads) {
  Sum sum;
  for (const MessageItem& each : items) {
    if (reads == Reads::sizes) {
      if (const int64_t size = each.lks_size(); size != LKSExtensionTotalSpaceUsedUnknown) sum.size(size);
      continue;
    }
    const LKSResource item(each);
    const auto kind = item.kind();
    if (kind != kResourceKind) continue;
    sum.text(kind->size());
    sum.text(item.lks_name().value_or("").size());
    if (const auto url = item.lks_URL()) sum.text(url->absoluteString().size());
    sum.text(item.lks_category().value_or("").size());
    sum.size(item.lks_size());
    for (const auto& date : {item.lks_dateCreated(), item.lks_dateModified(), item.lks_dateLastOpened()})
      if (date) sum.date(date->seconds, date->nanoseconds);
    sum.flags(item.isDeletable(), item.isRevealable());
  }
  return sum;
}

/// A handle on this program as an extension of that many resources.
std::shared_ptr<LKSOpaqueExtension> handleOf(const char* items) {
  platform::Manifest manifest;
  manifest.path = "/benchmark/" + std::string(items);
  manifest.identifier = "org.example.benchmark";
  manifest.exec = {"/proc/" + std::to_string(getpid()) + "/exe", "--peer", items};
  return LKSOpaqueExtension::initWithExtension(std::make_shared<platform::Extension>(manifest));
}

/// Exchanges of which each begins in the completion of the one before.
class Chain {
 public:
  Chain(int items, Reads reads)
      : handle_(handleOf(std::to_string(items).c_str())),
        reads_(reads),
        expected_(expectedSum(items, reads)) {}

  /// Whether all answers were right.
  bool run(int64_t exchanges) {
    left_ = exchanges;
    done_ = {};
    next();
    return done_.get_future().get();
  }

 private:
  void next() {
    handle_->processInputItems(request_, [this](const auto& items, const auto&) {
      const bool right = items && sumOf(*items, reads_) == expected_;
      if (right && --left_ > 0) return next();
      done_.set_value(right);
    });
  }

  const Items request_{*LKSCommand::initLKSCommandItem(kCmdResources)};
  const std::shared_ptr<LKSOpaqueExtension> handle_;
  const Reads reads_;
  const Sum expected_;
  int64_t left_ = 0;
  std::promise<bool> done_;
};

void exchange(benchmark::State& state) {
  Chain chain(static_cast<int>(state.range(0)), static_cast<Reads>(state.range(1)));
  const int64_t batch = state.range(2);
  chain.run(1);  // The first answer waits for the extension's start.
  while (state.KeepRunningBatch(batch)) {
    if (!chain.run(batch)) return state.SkipWithError("a wrong answer");
  }
}
BENCHMARK(exchange)
    ->Name("exchange/larkspan")
    ->Args({0, 0, 100})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(exchange)
    ->Name("exchange-waited/larkspan")
    ->Args({0, 0, 1})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(exchange)
    ->Name("items/larkspan")
    ->Args({kItems, 0, 10})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(exchange)
    ->Name("items-read/larkspan")
    ->Args({kItems, 1, 10})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

platform::Array archivedItems() {
  const Resources resources(kItems);
  return arrayFromItems(Items(resources.items.begin(), resources.items.end()));
}

void archive(benchmark::State& state) {
  const platform::Array items = archivedItems();
  const auto reads = static_cast<Reads>(state.range(0));
  const Sum expected = expectedSum(kItems, reads);
  for (auto _ : state) {
    const auto written = platform::KeyedArchiver::archivedData(items);
    const auto read = platform::KeyedUnarchiver::unarchivedValue(
        written.data, LKSHostExtensionContext::extensionItemClasses());
    if (sumOf(itemsFromValue(read.value), reads) != expected) return state.SkipWithError("not read back");
  }
}
BENCHMARK(archive)->Name("archive/larkspan")->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(archive)->Name("archive-read/larkspan")->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);

/// A folder of that many manifests, which goes with it.
struct Manifests {
  std::string folder = "/tmp/larkspan-manifests-XXXXXX";
  std::vector<std::string> paths;

  explicit Manifests(int64_t count) {
    if (!mkdtemp(folder.data())) return;
    for (int64_t i = 0; i < count; ++i) {
      const std::string name = "org.example.e" + std::to_string(i);
      paths.push_back(folder + '/' + name + ".extension");
      std::ofstream(paths.back()) << "[Extension]\nExtensionPoint=p\nExec=x\nName=N\nIdentifier=" << name
                                  << '\n';
    }
  }
  ~Manifests() { std::filesystem::remove_all(folder); }
};

/// From the start of matching to the complete set.
void discovery(benchmark::State& state) {
  const Manifests manifests(state.range(0));
  setenv("LARKSPAN_EXTENSION_PATH", manifests.folder.c_str(), 1);
  for (auto _ : state) {
    std::promise<std::size_t> found;
    bool first = true;
    platform::ExtensionMatcher matcher("p", [&](const auto& extensions, const auto&) {
      if (std::exchange(first, false)) found.set_value(extensions ? extensions->size() : 0);
    });
    if (found.get_future().get() != static_cast<std::size_t>(state.range(0)))
      return state.SkipWithError("not all found");
  }
}
BENCHMARK(discovery)->Name("discovery/larkspan")->Arg(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);

/// What reading the same files costs at least.
void readFiles(benchmark::State& state) {
  const Manifests manifests(state.range(0));
  char text[4096];
  for (auto _ : state) {
    for (const std::string& path : manifests.paths) {
      const platform::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
      if (read(file.get(), text, sizeof text) <= 0) return state.SkipWithError("not read");
    }
  }
}
BENCHMARK(readFiles)->Name("discovery/raw")->Arg(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

std::size_t bytesOfItems() {
  return platform::KeyedArchiver::archivedData(archivedItems()).data.bytes.size();
}

int serveExtension(int items) { return runStorageExtension(std::make_shared<Resources>(items)); }

}  // namespace larkspan::benchmarks

#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/dispatch/IoSource.h"
#include "larkspan/platform/files/EventStream.h"
#include "tests/platform/files/TestTree.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

namespace larkspan::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Batch = std::span<const FileEvent>;

void addBeneath(const fs::path& path, std::set<std::string>& model, bool isRoot = false) {
  std::error_code gone;
  const auto status = isRoot ? fs::status(path, gone) : fs::symlink_status(path, gone);
  if (!fs::exists(status)) return;
  model.insert(path.string() + (fs::is_directory(status) ? "/" : ""));
  if (!fs::is_directory(status)) return;
  for (fs::directory_iterator entry(path, gone), end; !gone && entry != end; entry.increment(gone))
    addBeneath(entry->path(), model);
}

std::unique_ptr<EventStream> watch(const TestTree& tree, const std::shared_ptr<DispatchQueue>& queue,
                                   std::chrono::nanoseconds latency, EventStream::Handler handler,
                                   uint32_t flags = EventStreamOptions().flags) {
  std::optional<Error> error;
  auto stream = EventStreams().make({{tree.path()}, latency, flags}, std::move(handler), error);
  EXPECT_TRUE(stream && !stream->start(queue)) << tree.path();
  return stream;
}

/// Keeps a model of the watched paths from nothing but the events.
class Model {
 public:
  explicit Model(std::vector<std::string> paths, std::chrono::nanoseconds latency = 1ms) : paths_(paths) {
    std::optional<Error> error;
    stream_ = EventStreams().make(
        {paths, latency}, [this](Batch batch) { take(batch); }, error);
    EXPECT_EQ(std::nullopt, error);
    for (const std::string& path : paths) addBeneath(path, model_, true);
    EXPECT_EQ(std::nullopt, stream_->start(DispatchQueue::makeConcurrent("test")));
  }

  /// Makes a file, the last there is, and waits until the model that knows it equals the disk.
  void expectEqual(const std::string& root, const char* what) {
    const std::string last = root + "/last" + std::to_string(++count_);
    ASSERT_GE(close(open(last.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644)), 0) << last;
    std::set<std::string> disk;
    for (const std::string& path : paths_) addBeneath(path, disk, true);
    std::unique_lock lock(mutex_);
    // Of several roots one may be told later than the other.
    changed_.wait_for(lock, 30s, [&] { return model_ == disk; });
    EXPECT_EQ(disk, model_) << what;
  }
  uint32_t flags() {
    const std::lock_guard lock(mutex_);
    return std::exchange(flags_, 0);
  }

 private:
  void take(Batch batch) {
    EXPECT_FALSE(batch.empty());
    const std::lock_guard lock(mutex_);
    for (const auto& [path, flags] : batch) {
      flags_ |= flags;
      const bool all = flags & kEventMustScanSubdirectories;
      struct stat facts;
      const bool isThere = lstat(path.c_str(), &facts) == 0;
      const bool isFolder = isThere && S_ISDIR(facts.st_mode);
      model_.erase(path);
      if (!isFolder || all || (flags & (kEventItemCreated | kEventItemRemoved | kEventItemRenamed)))
        model_.erase(model_.lower_bound(path + "/"), model_.lower_bound(path + "0"));
      if (all) {
        addBeneath(path, model_, true);
      } else if (isThere) {
        model_.insert(path + (isFolder ? "/" : ""));
      }
    }
    changed_.notify_all();
  }

  const std::vector<std::string> paths_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<std::string> model_;
  uint32_t flags_ = 0;
  int count_ = 0;
  std::unique_ptr<EventStream> stream_;  // Ends first.
};

TEST(EventStream, KeepsAModelOfATreeEqualToTheDiskWhateverChangesInIt) {
  const TestTree tree(TestTree::kInMemory);
  tree.shell("mkdir -p in/old/deep out/box/inner; touch in/old/deep/x out/box/inner/y");
  Model model({tree / "in"});
  for (const char* step : {
           "mkdir -p a/b/c && touch a/b/c/f a/b/g",
           "cp -r ../out/box new && mv a/b new/ && touch new/b/c/late",
           "mv ../out/box . && mkdir box/inner/more && touch box/inner/more/z",
           "mkdir e && mv -T e a && ln -s ../out way && ln -s old/deep short && mv short a/",
           "for i in 1 2 3 4 5 6 7 8 9; do mkdir -p t/$i/t && touch t/$i/t/f && mv t/$i u$i; done; rm -r "
           "u[1-4]",
           "mkdir secret && chmod 0 secret && touch secret/x && chmod 755 secret && touch secret/y",
       }) {
    tree.shell("cd in && " + std::string(step));
    model.expectEqual(tree / "in", step);
  }
  EXPECT_EQ(0u, model.flags() & (kEventMustScanSubdirectories | kEventRootChanged));

  std::mt19937 random(7);
  for (int i = 1; i <= 20'000; ++i) {
    const auto somewhere = [&] {
      std::string path = tree / (random() % 8 ? "in" : "out");
      for (unsigned depth = random() % 4 + 1; depth > 0; --depth) path += "/" + std::to_string(random() % 4);
      return path;
    };
    std::error_code failed;
    const std::string path = somewhere();
    if (random() % 2)
      mkdir(path.c_str(), 0755);
    else if (random() % 2)
      rename(path.c_str(), somewhere().c_str());
    else if (random() % 4)
      close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    else
      fs::remove_all(path, failed);
    if (i % 4000 == 0) model.expectEqual(tree / "in", "random");
  }
}

TEST(EventStream, SurvivesABurstThroughANewFolderAndAFullQueueOfTheKernel) {
  const TestTree tree(TestTree::kInMemory);
  Model model({tree.path()});
  const auto burst = [&](const std::string& folder, int files) {
    for (int i = 0; i < files; ++i)
      ASSERT_EQ(0, mknod((tree / folder + "/" + std::to_string(i)).c_str(), S_IFREG | 0644, 0));
  };
  // A busy machine may keep the queue from being emptied; not each time.
  bool wasLost = true;
  for (int attempt = 0; wasLost && attempt < 5; ++attempt) {
    const std::string folder = "first" + std::to_string(attempt);
    tree.folder(folder);
    burst(folder, 100'000);
    model.expectEqual(tree.path(), "burst");
    wasLost = model.flags() & kEventMustScanSubdirectories;
  }
  EXPECT_FALSE(wasLost);
  tree.folder("second");

  // Nobody empties the queue while the input/output thread stands still.
  std::promise<void> stands, goOn;
  const int event = eventfd(1, EFD_CLOEXEC);
  auto block = IoSource::make(event, EPOLLIN, [&](uint32_t) {
    eventfd_t value;
    if (eventfd_read(event, &value) != 0) return;
    stands.set_value();
    goOn.get_future().wait();
  });
  stands.get_future().wait();
  burst("second", 20'000);
  tree.folder("third");
  goOn.set_value();
  block.reset();
  close(event);
  model.expectEqual(tree.path(), "overflow");
  EXPECT_EQ(kEventMustScanSubdirectories | kEventKernelDropped,
            model.flags() & (kEventMustScanSubdirectories | kEventUserDropped | kEventKernelDropped));
  tree.file("third/x");
  model.expectEqual(tree.path(), "a folder that only the look after the overflow found");
}

TEST(EventStream, FollowsRootsThatGoComeAndAreNoFolders) {
  const TestTree tree;
  tree.file("file");
  tree.folder("real");
  tree.link("real", "link");
  const std::string missing = tree / "not/yet/there", link = tree / "link", file = tree / "file";
  Model model({missing, link, file});
  shell("touch " + link + "/one && echo more >>" + file);
  model.expectEqual(link, "through a link");
  for (const char* step : {"mkdir -p not/yet/there/deep && touch not/yet/there/deep/x",
                           "rm -r not/yet/there && mkdir not/yet/there && touch not/yet/there/again",
                           "mv not else && mkdir -p not/yet/there/second",
                           "rm -r not && mv else not && touch not/yet/there/back"}) {
    tree.shell(step);
    model.expectEqual(missing, step);
  }
  EXPECT_TRUE(model.flags() & kEventRootChanged);
  // A process that stands in the folder keeps it half alive.
  const int held = open((tree / "real").c_str(), O_RDONLY | O_CLOEXEC);
  tree.shell("rm -r real; mkdir real; touch real/new; mv file old; touch file");
  model.expectEqual(link, "held");
  close(held);
}

TEST(EventStream, WatchesTreesOfAnyDepthAndTellsFoldersAloneIfAsked) {
  const TestTree tree(TestTree::kInMemory);
  tree.chain(2100);
  std::promise<std::string> told;
  const auto stream = watch(
      tree, DispatchQueue::global(), 0ns, [&](Batch batch) { told.set_value(batch[0].path); },
      kEventStreamPathStrings);
  tree.shell(R"(perl -e 'chdir "d" or die for 1..2100; open F, ">new"')");
  std::string path = tree.path();
  for (int i = 0; i < 2100; ++i) path += "/d";
  EXPECT_EQ(path, told.get_future().get());
}

TEST(EventStream, GathersForTheLatencyAndDeliversNothingOnceItHasEnded) {
  const TestTree tree;
  std::unique_ptr<EventStream> stream;
  // Nobody runs the main queue but this thread: a batch that it holds stays there.
  pollfd batchQueued{mainQueueDescriptor(), POLLIN, 0};
  std::vector<std::string> told;
  stream = watch(tree, DispatchQueue::main(), 200ms, [&](Batch batch) {
    for (const FileEvent& event : batch) told.push_back(event.path);
    stream.reset();
  });
  const auto begin = std::chrono::steady_clock::now();
  for (const char* name : {"c", "a", "b"}) tree.file(name);
  while (told.empty() && poll(&batchQueued, 1, 30'000) == 1) drainMainQueue();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 200ms);
  EXPECT_EQ((std::vector<std::string>{tree / "c", tree / "a", tree / "b"}), told);
  EXPECT_FALSE(stream);
  for (const bool isDestroyed : {false, true}) {
    stream = watch(tree, DispatchQueue::main(), 0ns, [](auto) { FAIL() << "a batch queued before the end"; });
    tree.file(isDestroyed ? "e" : "d");
    ASSERT_EQ(1, poll(&batchQueued, 1, 30'000));
    isDestroyed ? stream.reset() : stream->stop();
    drainMainQueue();
  }

  std::promise<void> isDelivering;
  std::atomic<bool> stops = false, returned = false;
  stream = watch(tree, DispatchQueue::makeSerial("test"), 0ns, [&](auto) {
    isDelivering.set_value();
    while (!stops) std::this_thread::yield();
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    returned = true;
  });
  tree.file("f");
  isDelivering.get_future().wait();
  stops = true;
  stream->stop();
  EXPECT_TRUE(returned) << "it waits for the batch on its way";
}

TEST(EventStream, SaysWhatItHadToDropAndWhatItMayNotRead) {
  const TestTree tree(TestTree::kInMemory);
  FileEvent first{};
  auto stream = watch(tree, DispatchQueue::main(), 0ns, [&](Batch batch) { first = batch[0]; });
  // Nobody takes the second batch until those with these names are too many for it.
  const std::string names[] = {std::string(255, 'a'), std::string(255, 'b')};
  for (const std::string& name : names) tree.file(name);
  pollfd batchQueued{mainQueueDescriptor(), POLLIN, 0};
  for (int times = 250'000; times < 3'000'000 && !(first.flags & kEventUserDropped); times *= 2) {
    for (int i = 0; i < times; ++i) ASSERT_EQ(0, chmod((tree / names[i % 2]).c_str(), 0644));
    for (int batch = 0; batch < 2 && poll(&batchQueued, 1, 30'000) == 1; ++batch) drainMainQueue();
  }
  EXPECT_EQ(tree.path(), first.path);
  EXPECT_EQ(kEventMustScanSubdirectories | kEventUserDropped, first.flags & ~kEventKernelDropped);

  ASSERT_EQ(0, chmod(tree.path().c_str(), 0));
  const bool isRoot = geteuid() == 0 && seteuid(65534) == 0;
  std::optional<Error> error;
  stream = EventStreams().make(
      {{tree.path()}}, [](auto) {}, error);
  ASSERT_TRUE((!isRoot || seteuid(0) == 0) && chmod(tree.path().c_str(), 0755) == 0);
  EXPECT_FALSE(stream);
  EXPECT_EQ(tree.path() + " cannot be watched: Permission denied", error->localizedDescription());
}

}  // namespace
}  // namespace larkspan::platform

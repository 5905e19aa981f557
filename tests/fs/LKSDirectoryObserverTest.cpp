#include "larkspan/fs/LKSDirectoryObserver.h"
#include "larkspan/platform/files/Installed.h"
#include "tests/support/CapturedLog.h"

#include <gtest/gtest.h>

namespace larkspan::tests {
namespace {

using namespace platform;
using Paths = std::vector<std::string>;

/// Streams whose batches the test makes.
class ManualStreams : public EventStreams {
 public:
  std::unique_ptr<EventStream> make(const EventStreamOptions& options, EventStream::Handler handler,
                                    std::optional<Error>& error) override {
    made = options;
    deliver = std::move(handler);
    if (failsToMake) error = Error("test", 1, "why");
    return failsToMake ? nullptr : std::make_unique<Stream>(*this);
  }
  EventStreamOptions made;
  EventStream::Handler deliver;
  bool failsToMake = false, failsToStart = false;
  std::shared_ptr<DispatchQueue> queue;
  int stops = 0;

 private:
  struct Stream : EventStream {
    explicit Stream(ManualStreams& owner) : streams(owner) {}
    ~Stream() override { ++streams.stops; }
    std::optional<Error> start(std::shared_ptr<DispatchQueue> given) override {
      streams.queue = std::move(given);
      if (streams.failsToStart) return Error("test", 2, "why not");
      return std::nullopt;
    }
    void stop() override {}
    ManualStreams& streams;
  };
  const Installed<EventStreams> installed_{*this};
};

TEST(LKSDirectoryObserver, MakesAndStartsAStreamOrSaysWhichOfTheTwoFailed) {
  ManualStreams streams;
  const CapturedLog log;
  const auto queue = DispatchQueue::makeSerial("test");
  auto observer = LKSDirectoryObserver::scheduledObserverForPaths({"/a", "/b"}, nullptr, [](const Paths&) {});
  EXPECT_EQ((Paths{"/a", "/b"}), streams.made.paths);
  EXPECT_EQ(0x11u, streams.made.flags);
  EXPECT_EQ(std::chrono::seconds(3), streams.made.latency);
  EXPECT_EQ(DispatchQueue::main(), streams.queue);
  observer = LKSDirectoryObserver::scheduledObserverForPaths({"/a"}, queue, 0x40, 0.5, [](const Paths&) {});
  EXPECT_EQ(std::chrono::milliseconds(500), streams.made.latency);
  EXPECT_EQ(0x41u, streams.made.flags);
  EXPECT_EQ(queue, streams.queue);
  streams.failsToStart = true;
  std::optional<Error> error;
  EXPECT_EQ(nullptr, LKSDirectoryObserver::initWithPaths({"/a"}, queue, 0x10, 1, true, nullptr, &error));
  EXPECT_EQ(2, error->code());
  EXPECT_EQ(2, streams.stops);
  streams.failsToMake = true;
  EXPECT_EQ(nullptr, LKSDirectoryObserver::scheduledObserverForPaths({"/a"}, queue, [](const Paths&) {}));
  EXPECT_EQ((Paths{"FSEventStreamStart failed", "FSEventStreamCreate failed", "why"}), log.console());
}

TEST(LKSDirectoryObserver, LeavesOutWhatIsMetadataAloneOnlyIfAskedAndMayEndInItsCallback) {
  ManualStreams streams;
  std::vector<Paths> heard;
  auto observer = LKSDirectoryObserver::scheduledObserverForPaths(
      {"/"}, nullptr, 0x10, 1, true, [&](const Paths& paths) { heard.push_back(paths); });
  const std::vector<FileEvent> three = {{"/attribute", 0x400}, {"/renamed", 0x800}, {"/modified", 0x1000}};
  observer->invalidate();
  streams.deliver(three);
  EXPECT_EQ(Paths{"/modified"}, heard.back()) << "even after invalidate()";
  streams.deliver(std::vector<FileEvent>{{"/x", ~0x00401307u}});
  EXPECT_EQ(Paths(), heard.back()) << "an empty batch is told as well";
  observer->setIgnoreMetadataUpdates(false);
  streams.deliver(three);
  EXPECT_EQ((Paths{"/attribute", "/renamed", "/modified"}), heard.back());
  observer->setCallbackBlock([&](const Paths&) {
    EXPECT_EQ(0, streams.stops);
    observer.reset();
  });
  streams.deliver(three);
  EXPECT_EQ(1, streams.stops);
}

}  // namespace
}  // namespace larkspan::tests

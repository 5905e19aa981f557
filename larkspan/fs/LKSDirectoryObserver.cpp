#include "larkspan/fs/LKSDirectoryObserver.h"

#include "larkspan/platform/base/Clock.h"
#include "larkspan/platform/log/Console.h"

#include <utility>

namespace larkspan {
namespace {

constexpr double kDefaultLatency = 3.0;
/// What is more than metadata or a name.
constexpr uint32_t kSubstance = platform::kEventMustScanSubdirectories | platform::kEventUserDropped |
                                platform::kEventKernelDropped | platform::kEventItemCreated |
                                platform::kEventItemRemoved | platform::kEventItemModified |
                                platform::kEventItemCloned;
static_assert(kSubstance == 0x00401307);

}  // namespace

std::shared_ptr<LKSDirectoryObserver> LKSDirectoryObserver::scheduledObserverForPaths(
    const std::vector<std::string>& paths, const Queue& queue, uint32_t eventFlags, double latency,
    bool ignoreMetadataUpdates, CallbackBlock callBack) {
  return initWithPaths(paths, queue, eventFlags, latency, ignoreMetadataUpdates, std::move(callBack));
}

std::shared_ptr<LKSDirectoryObserver> LKSDirectoryObserver::scheduledObserverForPaths(
    const std::vector<std::string>& paths, const Queue& queue, uint32_t eventFlags, double latency,
    CallbackBlock callBack) {
  return initWithPaths(paths, queue, eventFlags, latency, false, std::move(callBack));
}

std::shared_ptr<LKSDirectoryObserver> LKSDirectoryObserver::scheduledObserverForPaths(
    const std::vector<std::string>& paths, const Queue& queue, CallbackBlock callBack) {
  return initWithPaths(paths, queue, platform::kEventStreamFileEvents, kDefaultLatency, false,
                       std::move(callBack));
}

std::shared_ptr<LKSDirectoryObserver> LKSDirectoryObserver::initWithPaths(
    const std::vector<std::string>& paths, const Queue& onQueue, uint32_t eventFlags, double latency,
    bool ignoreMetadataUpdates, CallbackBlock callback, std::optional<platform::Error>* error) {
  const std::shared_ptr<LKSDirectoryObserver> observer(
      new LKSDirectoryObserver(ignoreMetadataUpdates, std::move(callback)));
  const auto give = [&](const char* message, std::optional<platform::Error> reason) {
    platform::consoleLog(message);
    if (error)
      *error = std::move(reason);
    else if (reason)
      platform::consoleLog(reason->localizedDescription());
    return nullptr;
  };
  const platform::EventStreamOptions options{paths, platform::nanosecondsFromSeconds(latency),
                                             eventFlags | platform::kEventStreamPathStrings};
  std::optional<platform::Error> reason;
  // The stream is ended before what its handler refers to.
  observer->stream_ = platform::EventStreams::current().make(
      options,
      [self = observer.get()](std::span<const platform::FileEvent> events) { self->deliver(events); },
      reason);
  if (!observer->stream_) return give("FSEventStreamCreate failed", std::move(reason));
  reason = observer->stream_->start(onQueue ? onQueue : platform::DispatchQueue::main());
  if (reason) return give("FSEventStreamStart failed", std::move(reason));
  return observer;
}

LKSDirectoryObserver::~LKSDirectoryObserver() { stream_.reset(); }

LKSDirectoryObserver::CallbackBlock LKSDirectoryObserver::callbackBlock() const {
  const std::lock_guard lock(mutex_);
  return callback_;
}

void LKSDirectoryObserver::setCallbackBlock(CallbackBlock callback) {
  const std::lock_guard lock(mutex_);
  callback_.swap(callback);
}

void LKSDirectoryObserver::deliver(std::span<const platform::FileEvent> events) {
  std::vector<std::string> paths;
  paths.reserve(events.size());
  const bool ignores = ignoreMetadataUpdates_;
  for (const platform::FileEvent& event : events) {
    if (!ignores || (event.flags & kSubstance)) paths.push_back(event.path);
  }
  const CallbackBlock callback = callbackBlock();
  callback(paths);  // May end this observer.
}

}  // namespace larkspan

#pragma once

#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/files/EventStream.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace larkspan {

/// Tells which paths change in a set of folders and beneath them, batch by batch; see `platform::EventStream`
/// for what a batch holds and what is not seen.
/// Owner:   the caller: dropping the last reference stops it, and no batch follows after that. It may be
///          dropped in the callback; elsewhere the end waits for a batch that is being delivered, so the caller
///          must not hold a lock that the callback takes.
/// Thread:  the callback runs on the queue given at creation, one batch at a time; without a queue that is the
///          main queue, which somebody has to run. Creating blocks the caller while all folders are walked.
/// Failure: what cannot be created or started is nothing, said in the console log with the reason. Folders that
///          do not exist are waited for, but one that may not be read is a failure. A missing callback ends the
///          program at the first batch.
class LKSDirectoryObserver {
 public:
  /// Gets the paths of one batch, in order and with repetitions.
  using CallbackBlock = std::function<void(const std::vector<std::string>& paths)>;
  using Queue = std::shared_ptr<platform::DispatchQueue>;

  /// A started observer. `eventFlags` are bits of `platform::EventStreamFlag`, `latency` is how many seconds
  /// the first event of a batch waits for others. With `ignoreMetadataUpdates` events are left out that tell
  /// of no creation, removal, changed content or loss: changed attributes, and the mere names of what was
  /// moved; a batch may then be empty.
  static std::shared_ptr<LKSDirectoryObserver> scheduledObserverForPaths(
      const std::vector<std::string>& paths, const Queue& queue, uint32_t eventFlags, double latency,
      bool ignoreMetadataUpdates, CallbackBlock callBack);
  /// The same that ignores nothing.
  static std::shared_ptr<LKSDirectoryObserver> scheduledObserverForPaths(
      const std::vector<std::string>& paths, const Queue& queue, uint32_t eventFlags, double latency,
      CallbackBlock callBack);
  /// The same for single files, with a latency of three seconds.
  static std::shared_ptr<LKSDirectoryObserver> scheduledObserverForPaths(
      const std::vector<std::string>& paths, const Queue& queue, CallbackBlock callBack);
  /// What the others call; `error`, if wanted, gets the reason where it returns nothing, in place of the log.
  static std::shared_ptr<LKSDirectoryObserver> initWithPaths(const std::vector<std::string>& paths,
                                                             const Queue& onQueue, uint32_t eventFlags,
                                                             double latency, bool ignoreMetadataUpdates,
                                                             CallbackBlock callback,
                                                             std::optional<platform::Error>* error = nullptr);

  ~LKSDirectoryObserver();
  LKSDirectoryObserver(const LKSDirectoryObserver&) = delete;
  LKSDirectoryObserver& operator=(const LKSDirectoryObserver&) = delete;

  /// Does nothing: drop the last reference to stop.
  void invalidate() {}

  /// Any thread; a new one gets the batches that are delivered from then on.
  CallbackBlock callbackBlock() const;
  void setCallbackBlock(CallbackBlock callback);
  bool ignoreMetadataUpdates() const { return ignoreMetadataUpdates_; }
  void setIgnoreMetadataUpdates(bool ignore) { ignoreMetadataUpdates_ = ignore; }
  /// The stream that the observer owns.
  platform::EventStream* fsEventStream() const { return stream_.get(); }
  /// Ends the old one.
  void setFsEventStream(std::unique_ptr<platform::EventStream> stream) { stream_ = std::move(stream); }

 private:
  LKSDirectoryObserver(bool ignoreMetadataUpdates, CallbackBlock callback)
      : ignoreMetadataUpdates_(ignoreMetadataUpdates), callback_(std::move(callback)) {}
  void deliver(std::span<const platform::FileEvent> events);

  std::atomic<bool> ignoreMetadataUpdates_;
  mutable std::mutex mutex_;
  CallbackBlock callback_;
  std::unique_ptr<platform::EventStream> stream_;
};

}  // namespace larkspan

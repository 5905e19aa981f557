#include "larkspan/platform/appext/ExtensionMatcher.h"

#include "larkspan/platform/appext/ExtensionDirectories.h"
#include "larkspan/platform/appext/ManifestFolder.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/files/PathWatch.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <string_view>
#include <tuple>
#include <utility>

namespace larkspan::platform {
namespace {

constexpr std::chrono::milliseconds kCoalescing{80};
constexpr std::chrono::milliseconds kRetry{800};  // With the look itself, within a second.

bool isUnchanged(const Manifest& a, const Manifest& b) {
  const auto parts = [](const Manifest& m) {
    return std::tie(m.path, m.identifier, m.extensionPoint, m.name, m.exec, m.icon, m.hidden);
  };
  return parts(a) == parts(b);
}

Error watchError(int errorNumber) {
  std::string text = "Extensions cannot be watched and are looked for each second: ";
  text += std::strerror(errorNumber);
  if (errorNumber == EMFILE) text += " (fs.inotify.max_user_instances, or the process's limit of open files)";
  if (errorNumber == ENOSPC) text += " (fs.inotify.max_user_watches)";
  return Error(kPosixErrorDomain, errorNumber, text);
}

}  // namespace

/// Everything but the completion and `hasEnded_` belongs to the queue.
class ExtensionMatcher::Matching : public std::enable_shared_from_this<Matching> {
 public:
  Matching(std::string extensionPoint, Completion completion)
      : extensionPoint_(std::move(extensionPoint)), completion_(std::move(completion)) {
    for (std::string& path : extensionDirectories()) folders_.emplace_back(std::move(path));
  }

  void begin() {
    // The input/output thread holds no more than a weak reference, so that it never destroys what it calls.
    watch_.emplace([weak = weak_from_this(), queue = queue_] {
      queue->after(kCoalescing, [weak] {
        if (const auto self = weak.lock()) self->look();
      });
    });
    queue_->async([self = shared_from_this()] { self->look(); });
  }
  void end();

 private:
  void look();
  std::vector<Manifest> current() const;
  void deliver(const std::optional<std::vector<Manifest>>& extensions, const std::optional<Error>& error);

  const std::shared_ptr<DispatchQueue> queue_ =
      DispatchQueue::makeSerial("corvane.larkspan.ExtensionMatcher");
  const std::string extensionPoint_;
  std::vector<ManifestFolder> folders_;
  std::optional<PathWatch> watch_;
  std::optional<std::vector<Manifest>> delivered_;
  int failure_ = 0;
  bool isRetryDue_ = false;

  // Held during a delivery. A call from within one is known by its queue instead.
  std::mutex delivering_;
  std::atomic<bool> hasEnded_ = false;
  Completion completion_;
};

void ExtensionMatcher::Matching::look() {
  if (hasEnded_) {
    watch_.reset();
    return;
  }
  int failure = 0;
  watch_->begin();
  for (ManifestFolder& folder : folders_) {
    watch_->addContent(folder.path());
    const int errorNumber = folder.look([&](const std::string& link) { watch_->addContent(link); });
    if (errorNumber != 0) failure = errorNumber;
  }
  if (const int errorNumber = watch_->finish()) failure = errorNumber;

  std::vector<Manifest> extensions = current();
  if (!delivered_ || !std::equal(extensions.begin(), extensions.end(), delivered_->begin(), delivered_->end(),
                                 isUnchanged)) {
    delivered_ = std::move(extensions);
    deliver(delivered_, std::nullopt);
  }
  if (failure != 0 && failure_ == 0) deliver(std::nullopt, watchError(failure));
  failure_ = failure;
  if (failure != 0 && !std::exchange(isRetryDue_, true)) {
    queue_->after(kRetry, [weak = weak_from_this()] {
      const auto self = weak.lock();
      if (!self) return;
      self->isRetryDue_ = false;
      self->look();
    });
  }
}

std::vector<Manifest> ExtensionMatcher::Matching::current() const {
  std::map<std::string_view, const Manifest*> winners;
  for (const ManifestFolder& folder : folders_) {
    folder.forEach([&](const Manifest& manifest) { winners.try_emplace(manifest.identifier, &manifest); });
  }
  std::vector<Manifest> result;
  for (const auto& [identifier, manifest] : winners) {
    if (!manifest->hidden && manifest->extensionPoint == extensionPoint_) result.push_back(*manifest);
  }
  return result;
}

void ExtensionMatcher::Matching::deliver(const std::optional<std::vector<Manifest>>& extensions,
                                         const std::optional<Error>& error) {
  Completion dropped;
  const std::lock_guard lock(delivering_);
  if (!hasEnded_) completion_(extensions, error);
  if (hasEnded_) dropped = std::exchange(completion_, nullptr);
}

void ExtensionMatcher::Matching::end() {
  Completion dropped;  // Destroyed after the lock is released.
  if (queue_->isCurrent()) {
    hasEnded_ = true;  // From the completion: `deliver()` drops it.
  } else {
    const std::lock_guard lock(delivering_);
    hasEnded_ = true;
    dropped = std::exchange(completion_, nullptr);
  }
  queue_->async([self = shared_from_this()] { self->look(); });
}

ExtensionMatcher::ExtensionMatcher(std::string extensionPoint, Completion completion)
    : matching_(std::make_shared<Matching>(std::move(extensionPoint), std::move(completion))) {
  matching_->begin();
}

ExtensionMatcher::~ExtensionMatcher() { end(); }

void ExtensionMatcher::end() { matching_->end(); }

}  // namespace larkspan::platform

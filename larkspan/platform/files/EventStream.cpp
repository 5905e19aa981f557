#include "larkspan/platform/files/EventStream.h"

#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/dispatch/IoSource.h"
#include "larkspan/platform/files/PathWatch.h"
#include "larkspan/platform/files/WatchTree.h"
#include "larkspan/platform/log/Console.h"

#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include <sys/epoll.h>
#include <sys/inotify.h>

// Three places work on a stream. The input/output thread empties the kernel's queue, which 16384 events fill in
// a tenth of a second, into memory and does nothing else. The stream's own serial queue finds out what the
// events mean and keeps the watches; latency is a timer there. The caller's queue hears the batches.

namespace larkspan::platform {
namespace {

using namespace std::chrono_literals;

/// Raw events that wait to be understood, and batches that wait to be delivered; what goes beyond is dropped
/// and looked for again.
constexpr std::size_t kMostBacklog = 64u << 20;
constexpr std::size_t kMostPending = 64u << 20;
constexpr auto kRootsSettle = 20ms;
/// Events understood before the queue's timers have their turn: milliseconds, even if each is of a new folder.
constexpr int kEventsAtOnce = 256;
/// How often what cannot be watched is looked at.
constexpr auto kLookAgain = 30s;

Error watchError(int errorNumber, std::string_view context) {
  std::string text = format("%@: %@", context, std::strerror(errorNumber));
  if (errorNumber == EMFILE) text += " (fs.inotify.max_user_instances, or the process's limit of open files)";
  if (errorNumber == ENOSPC) text += " (fs.inotify.max_user_watches is too low for so many folders)";
  return Error(kPosixErrorDomain, errorNumber, text);
}

/// Absolute and without a trailing slash.
std::string absolutePath(std::string path) {
  if (!path.starts_with('/')) {
    char current[PATH_MAX];
    if (getcwd(current, sizeof current)) path = std::string(current) + '/' + path;
  }
  for (;;) {
    if (path.ends_with('/')) {
      path.pop_back();
    } else if (path.ends_with("/.")) {
      path.resize(path.size() - 2);
    } else {
      return path;
    }
  }
}

std::vector<std::string> absolutePaths(const std::vector<std::string>& paths) {
  std::vector<std::string> result;
  for (const std::string& path : paths) result.push_back(absolutePath(path));
  return result;
}

/// What a stream's handle, its queue and its timers share.
class Watching : public std::enable_shared_from_this<Watching> {
 public:
  Watching(const EventStreamOptions& options, EventStream::Handler handler)
      : latency_(options.latency),
        handler_(std::move(handler)),
        tree_(inotify_.get(), absolutePaths(options.paths), !(options.flags & kEventStreamFileEvents),
              [this](const std::string& path, uint32_t flags) { add(path, flags); }) {}

  std::optional<Error> establish();
  std::optional<Error> start(std::shared_ptr<DispatchQueue> queue);
  void stop();
  /// Gives a reference up where the closing of many watches, if it is the last, takes nobody's time.
  static void release(std::shared_ptr<Watching> watching);

 private:
  // The input/output thread.
  void take();
  // The stream's queue.
  int checkRoots(bool isFirst);
  Error refusalError() const { return Error::posix(refusal_.second, refusal_.first + " cannot be watched"); }
  void workLater();
  void work();
  void settle();
  int shortage() const { return placeShortage_ ? placeShortage_ : tree_.shortage(); }
  void attendUnwatched();
  void add(const std::string& path, uint32_t flags);
  void send();
  // The caller's queue.
  void deliver(std::span<const FileEvent> batch);

  const std::shared_ptr<DispatchQueue> work_ =
      DispatchQueue::makeSerial("corvane.larkspan.EventStream", QualityOfService::userInitiated);
  const std::chrono::nanoseconds latency_;
  const EventStream::Handler handler_;
  const Descriptor inotify_{inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};

  std::mutex backlogMutex_;
  std::vector<char> backlog_;
  bool backlogDropped_ = false;
  bool isWorking_ = false;

  std::vector<char> events_;  // Taken from the backlog, and how far they are understood.
  std::size_t understood_ = 0;
  WatchTree tree_;
  std::optional<PathWatch> anchors_;
  std::pair<std::string, int> refusal_;
  int placeShortage_ = 0;
  bool isShort_ = false, looksAgain_ = false;
  std::shared_ptr<DispatchQueue> queue_;
  std::vector<FileEvent> pending_;
  std::size_t pendingBytes_ = 0;
  bool pendingDropped_ = false;
  bool isTimed_ = false, isDue_ = false, isDelivering_ = false;

  std::mutex stopMutex_;
  std::condition_variable delivered_;
  std::thread::id deliverer_;
  bool isStopped_ = false;

  std::shared_ptr<IoSource> source_;  // The handle's.
};

std::optional<Error> Watching::establish() {
  if (!inotify_) return watchError(errno, "Folders cannot be watched");
  int failure = 0;
  work_->sync([&] {
    anchors_.emplace([weak = weak_from_this(), work = work_] {
      work->after(kRootsSettle, [weak] {
        if (const auto self = weak.lock()) self->checkRoots(false);
      });
    });
    failure = checkRoots(true);
    if (failure == 0) attendUnwatched();
  });
  if (failure != 0) return watchError(failure, "Folders cannot be watched");
  if (refusal_.second) return refusalError();
  return std::nullopt;
}

int Watching::checkRoots(bool isFirst) {
  anchors_->begin();
  for (const std::string& path : tree_.rootPaths()) anchors_->addPlace(path);
  tree_.checkRoots(isFirst);
  placeShortage_ = anchors_->finish();
  if (auto refusal = tree_.refusal(); refusal != refusal_) {
    refusal_ = std::move(refusal);
    if (refusal_.second && !isFirst) consoleLog(refusalError().localizedDescription());
  }
  if (!isFirst) attendUnwatched();
  return shortage();
}

std::optional<Error> Watching::start(std::shared_ptr<DispatchQueue> queue) {
  // Cancelled before the handle lets go of this.
  source_ = IoSource::make(inotify_.get(), EPOLLIN, [this](uint32_t) { take(); });
  if (!source_) return watchError(errno, "Events cannot be awaited");
  // The last step: the handler may end the stream before this returns.
  const auto work = work_;
  work->async([self = shared_from_this(), queue = std::move(queue)]() mutable {
    self->queue_ = std::move(queue);
    self->send();
  });
  return std::nullopt;
}

void Watching::stop() {
  if (source_) source_->cancel();
  std::unique_lock lock(stopMutex_);
  isStopped_ = true;
  if (deliverer_ == std::this_thread::get_id()) return;
  delivered_.wait(lock, [this] { return deliverer_ == std::thread::id(); });
}

void Watching::release(std::shared_ptr<Watching> watching) {
  const auto work = watching->work_;
  work->async([watching = std::move(watching)] {});
}

void Watching::take() {
  const std::lock_guard lock(backlogMutex_);
  for (;;) {
    alignas(inotify_event) char events[64 * 1024];
    const ssize_t size = read(inotify_.get(), events, sizeof events);
    if (size <= 0) break;
    if (backlog_.size() > kMostBacklog) backlogDropped_ = true;
    if (!backlogDropped_) backlog_.insert(backlog_.end(), events, events + size);
  }
  if (!std::exchange(isWorking_, true)) workLater();
}

void Watching::workLater() {
  work_->async([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->work();
  });
}

/// Understands some events; the rest is a task of its own, so that batches leave in time however many come in.
void Watching::work() {
  if (understood_ == events_.size()) {
    events_ = {};
    understood_ = 0;
    const std::lock_guard lock(backlogMutex_);
    events_.swap(backlog_);
    if (std::exchange(backlogDropped_, false)) tree_.loseEvents(kEventUserDropped);
    isWorking_ = !events_.empty();
    if (!isWorking_) return;
  }
  for (int left = kEventsAtOnce; left > 0 && understood_ != events_.size(); --left) {
    const auto* event = reinterpret_cast<const inotify_event*>(events_.data() + understood_);
    tree_.handle(*event);
    understood_ += sizeof *event + event->len;
  }
  attendUnwatched();
  if (understood_ == events_.size()) settle();
  workLater();
}

void Watching::settle() {
  if (tree_.hasLostEvents()) tree_.rescan();
  if (tree_.hasLostRoot()) checkRoots(false);
  tree_.rest();
  attendUnwatched();
}

/// No event tells of what cannot be watched. A want of watches is announced, and the roots are told at once and
/// at each look, as anything may have changed; a path that may not be read is told when another thing stands
/// there.
void Watching::attendUnwatched() {
  if (shortage() != 0 && !std::exchange(isShort_, true)) {
    consoleLog(watchError(shortage(), "Some folders are looked at twice a minute, as they cannot be watched")
                   .localizedDescription());
    for (const std::string& root : tree_.rootPaths()) add(root, kEventMustScanSubdirectories);
  }
  const bool isDue = isShort_ || refusal_.second != 0 || anchors_->isBlind();
  if (!isDue || std::exchange(looksAgain_, true)) return;
  work_->after(kLookAgain, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->looksAgain_ = false;
    if (self->isShort_) self->tree_.rescan();
    self->checkRoots(false);
    self->tree_.rest();
    self->isShort_ = self->shortage() != 0;
  });
}

void Watching::add(const std::string& path, uint32_t flags) {
  if (pendingDropped_) return;  // Whoever hears of the loss looks at everything after this.
  if (!pending_.empty() && pending_.back().path == path) {
    pending_.back().flags |= flags;
    return;
  }
  pendingBytes_ += sizeof(FileEvent) + path.size();
  if (pendingBytes_ > kMostPending) {
    pendingDropped_ = true;
    pending_.clear();
    for (std::string& root : tree_.rootPaths())
      pending_.push_back({std::move(root), kEventMustScanSubdirectories | kEventUserDropped});
    return;
  }
  pending_.push_back({path, flags});
  if (std::exchange(isTimed_, true)) return;
  work_->after(latency_, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->isTimed_ = false;
    self->isDue_ = true;
    self->send();
  });
}

void Watching::send() {
  if (!isDue_ || isDelivering_ || !queue_) return;
  isDue_ = false;
  if (pending_.empty()) return;
  isDelivering_ = true;
  pendingBytes_ = 0;
  pendingDropped_ = false;
  queue_->async([weak = weak_from_this(), batch = std::exchange(pending_, {})] {
    auto self = weak.lock();
    if (!self) return;
    self->deliver(batch);
    self->work_->async([self] {
      self->isDelivering_ = false;
      self->send();
    });
    release(std::move(self));
  });
}

void Watching::deliver(std::span<const FileEvent> batch) {
  {
    const std::lock_guard lock(stopMutex_);
    if (isStopped_) return;
    deliverer_ = std::this_thread::get_id();
  }
  handler_(batch);
  const std::lock_guard lock(stopMutex_);
  deliverer_ = {};
  delivered_.notify_all();
}

class InotifyStream final : public EventStream {
 public:
  explicit InotifyStream(std::shared_ptr<Watching> watching) : watching_(std::move(watching)) {}
  ~InotifyStream() override {
    watching_->stop();
    Watching::release(std::move(watching_));
  }

  std::optional<Error> start(std::shared_ptr<DispatchQueue> queue) override {
    return watching_->start(std::move(queue));
  }
  void stop() override { watching_->stop(); }

 private:
  std::shared_ptr<Watching> watching_;
};

}  // namespace

std::unique_ptr<EventStream> EventStreams::make(const EventStreamOptions& options,
                                                EventStream::Handler handler, std::optional<Error>& error) {
  auto watching = std::make_shared<Watching>(options, std::move(handler));
  if ((error = watching->establish())) return nullptr;
  return std::make_unique<InotifyStream>(std::move(watching));
}

std::atomic<EventStreams*>& EventStreams::slot() {
  static auto* installed = new std::atomic<EventStreams*>(new EventStreams);
  return *installed;
}

}  // namespace larkspan::platform

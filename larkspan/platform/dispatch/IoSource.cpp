#include "larkspan/platform/dispatch/IoSource.h"

#include "larkspan/platform/dispatch/Thread.h"

#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <utility>

#include <errno.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

thread_local bool onIoThread = false;

class Source;

// The thread and what it watches. The kernel is given a number that is never used twice, not the descriptor:
// events that were fetched before a cancel find no source, even if the descriptor lives on as another file.
class IoThread {
 public:
  static IoThread& shared() {
    static auto* const thread = new IoThread;
    return *thread;
  }

  bool add(const std::shared_ptr<Source>& source);
  void setEvents(Source& source, uint32_t events);
  void cancel(Source& source);

 private:
  IoThread() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    startThread("lks-io", [this] { run(); });
  }
  void run();
  void deliver(uint64_t number, uint32_t events);
  bool control(int operation, const Source& source, uint32_t events) const;

  const int epoll_;
  std::mutex mutex_;
  std::condition_variable handlerEnded_;
  const Source* running_ = nullptr;
  uint64_t lastNumber_ = 0;
  std::unordered_map<uint64_t, std::weak_ptr<Source>> sources_;
};

class Source final : public IoSource, public std::enable_shared_from_this<Source> {
 public:
  Source(int descriptor, uint32_t events, Handler handler)
      : descriptor_(descriptor), events_(events), handler_(std::move(handler)) {}
  ~Source() override { cancel(); }

  void setEvents(uint32_t events) override { IoThread::shared().setEvents(*this, events); }
  void cancel() override { IoThread::shared().cancel(*this); }

 private:
  friend IoThread;
  const int descriptor_;
  // Under the thread's mutex:
  uint32_t events_;
  uint64_t number_ = 0;  // 0: cancelled, or never watched.
  Handler handler_;      // Called without the mutex, and not touched by others meanwhile.
};

bool IoThread::control(int operation, const Source& source, uint32_t events) const {
  epoll_event event{};
  event.events = events;
  event.data.u64 = source.number_;
  return epoll_ctl(epoll_, operation, source.descriptor_, &event) == 0;
}

bool IoThread::add(const std::shared_ptr<Source>& source) {
  const std::lock_guard lock(mutex_);
  source->number_ = ++lastNumber_;
  // A paused source is added and taken out again, so that a descriptor which cannot be watched shows now.
  if (!control(EPOLL_CTL_ADD, *source, source->events_)) {
    source->number_ = 0;
    return false;
  }
  if (source->events_ == 0) control(EPOLL_CTL_DEL, *source, 0);
  sources_.emplace(source->number_, source);
  return true;
}

void IoThread::setEvents(Source& source, uint32_t events) {
  const std::lock_guard lock(mutex_);
  if (source.number_ == 0 || source.events_ == events) return;
  const int operation = events == 0 ? EPOLL_CTL_DEL : source.events_ == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
  control(operation, source, events);
  source.events_ = events;
}

void IoThread::cancel(Source& source) {
  IoSource::Handler dropped;  // Destroyed after the lock is released.
  std::unique_lock lock(mutex_);
  if (source.number_ != 0) {
    if (source.events_ != 0) control(EPOLL_CTL_DEL, source, 0);
    sources_.erase(source.number_);
    source.number_ = 0;
  }
  if (running_ == &source) {
    if (onIoThread) return;  // From the handler itself: `deliver()` drops it.
    handlerEnded_.wait(lock, [&] { return running_ != &source; });
  }
  dropped = std::exchange(source.handler_, nullptr);
}

void IoThread::deliver(uint64_t number, uint32_t events) {
  std::shared_ptr<Source> source;
  IoSource::Handler dropped;
  std::unique_lock lock(mutex_);
  const auto found = sources_.find(number);
  if (found == sources_.end() || !(source = found->second.lock())) return;
  if (source->events_ == 0) return;
  events &= source->events_ | EPOLLHUP | EPOLLERR;
  if (events == 0) return;
  running_ = source.get();
  lock.unlock();
  source->handler_(events);
  lock.lock();
  running_ = nullptr;
  if (source->number_ == 0) dropped = std::exchange(source->handler_, nullptr);
  handlerEnded_.notify_all();
  lock.unlock();
}

void IoThread::run() {
  onIoThread = true;
  epoll_event events[64];
  for (;;) {
    const int count = epoll_wait(epoll_, events, std::size(events), -1);
    for (int i = 0; i < count; ++i) deliver(events[i].data.u64, events[i].events);
  }
}

}  // namespace

std::shared_ptr<IoSource> IoSource::make(int descriptor, uint32_t events, Handler handler) {
  auto source = std::make_shared<Source>(descriptor, events, std::move(handler));
  if (!IoThread::shared().add(source)) return nullptr;
  return source;
}

bool isIoThread() { return onIoThread; }

}  // namespace larkspan::platform

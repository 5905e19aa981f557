#include "larkspan/platform/dispatch/IoSource.h"

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/dispatch/Thread.h"

#include <condition_variable>
#include <mutex>
#include <system_error>
#include <unordered_map>
#include <utility>

#include <errno.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

thread_local bool onIoThread = false;

// What is watched; the thread holds it while it runs the handler.
struct Source {
  const int descriptor;
  // Under the thread's mutex:
  uint32_t events;
  IoSource::Handler handler;  // Called without the mutex, and not touched by others meanwhile.
  uint64_t number = 0;        // 0: cancelled, or never watched.
};

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
  /// To be called on this thread.
  std::shared_ptr<Source> running() const { return running_; }

 private:
  bool begin();
  void run();
  void deliver(uint64_t number, uint32_t events);
  bool control(int operation, const Source& source, uint32_t events) const;

  int epoll_ = -1;  // The thread has it once it runs.
  std::mutex mutex_;
  std::condition_variable handlerEnded_;
  std::shared_ptr<Source> running_;  // Written by the thread alone.
  uint64_t lastNumber_ = 0;
  std::unordered_map<uint64_t, std::shared_ptr<Source>> sources_;
};

bool IoThread::control(int operation, const Source& source, uint32_t events) const {
  epoll_event event{};
  event.events = events;
  event.data.u64 = source.number;
  return epoll_ctl(epoll_, operation, source.descriptor, &event) == 0;
}

/// With the lock held. False with errno where a descriptor or the thread is missing; then the next source tries again.
bool IoThread::begin() {
  Descriptor made(epoll_create1(EPOLL_CLOEXEC));
  if (!made) return false;
  epoll_ = made.get();
  try {
    startThread("lks-io", [this] { run(); });
  } catch (const std::system_error& error) {
    epoll_ = -1;
    made.reset();
    errno = error.code().value();
    return false;
  }
  made.release();
  return true;
}

bool IoThread::add(const std::shared_ptr<Source>& source) {
  const std::lock_guard lock(mutex_);
  if (epoll_ < 0 && !begin()) return false;
  source->number = ++lastNumber_;
  // A paused source is added and taken out again, so that a descriptor which cannot be watched shows now.
  if (!control(EPOLL_CTL_ADD, *source, source->events)) {
    source->number = 0;
    return false;
  }
  if (source->events == 0) control(EPOLL_CTL_DEL, *source, 0);
  sources_.emplace(source->number, source);
  return true;
}

void IoThread::setEvents(Source& source, uint32_t events) {
  const std::lock_guard lock(mutex_);
  if (source.number == 0 || source.events == events) return;
  const int operation = events == 0 ? EPOLL_CTL_DEL : source.events == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
  control(operation, source, events);
  source.events = events;
}

void IoThread::cancel(Source& source) {
  IoSource::Handler dropped;  // Destroyed after the lock is released.
  std::unique_lock lock(mutex_);
  if (source.number != 0) {
    if (source.events != 0) control(EPOLL_CTL_DEL, source, 0);
    sources_.erase(source.number);
    source.number = 0;
  }
  if (running_.get() == &source) {
    if (onIoThread) return;  // From the handler itself: `deliver()` drops it.
    handlerEnded_.wait(lock, [&] { return running_.get() != &source; });
  }
  dropped = std::exchange(source.handler, nullptr);
}

void IoThread::deliver(uint64_t number, uint32_t events) {
  std::shared_ptr<Source> source;
  IoSource::Handler dropped;
  std::unique_lock lock(mutex_);
  const auto found = sources_.find(number);
  if (found == sources_.end() || found->second->events == 0) return;
  source = found->second;
  events &= source->events | EPOLLHUP | EPOLLERR;
  if (events == 0) return;
  running_ = source;
  lock.unlock();
  source->handler(events);
  lock.lock();
  running_ = nullptr;
  if (source->number == 0) dropped = std::exchange(source->handler, nullptr);
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

// What the caller holds. Its end is a cancel there and then, while the descriptor is still open, and not when
// the thread happens to be done with the source.
class Handle final : public IoSource {
 public:
  explicit Handle(std::shared_ptr<Source> source) : source_(std::move(source)) {}
  ~Handle() override { IoThread::shared().cancel(*source_); }

  void setEvents(uint32_t events) override { IoThread::shared().setEvents(*source_, events); }
  void cancel() override { IoThread::shared().cancel(*source_); }

 private:
  const std::shared_ptr<Source> source_;
};

}  // namespace

std::shared_ptr<IoSource> IoSource::make(int descriptor, uint32_t events, Handler handler) {
  const std::shared_ptr<Source> source(new Source{descriptor, events, std::move(handler)});
  if (!IoThread::shared().add(source)) return nullptr;
  return std::make_shared<Handle>(source);
}

void IoSource::pause(std::chrono::milliseconds time) {
  IoThread& thread = IoThread::shared();
  const auto source = thread.running();
  thread.setEvents(*source, 0);
  DispatchQueue::global(QualityOfService::utility)->after(time, [&thread, source] {
    thread.setEvents(*source, EPOLLIN);
  });
}

bool isIoThread() { return onIoThread; }

}  // namespace larkspan::platform

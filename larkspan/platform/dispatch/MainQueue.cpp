#include "larkspan/platform/dispatch/MainQueue.h"

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/dispatch/Thread.h"

#include <stdexcept>

#include <poll.h>
#include <sys/eventfd.h>

namespace larkspan::platform {

namespace {

/// How often tasks are looked for where no descriptor is left to announce them.
constexpr int kUnannouncedMilliseconds = 20;

}  // namespace

MainQueue::MainQueue() : SerialQueue("main", QualityOfService::userInteractive) { descriptor(); }

MainQueue& MainQueue::shared() { return static_cast<MainQueue&>(*DispatchQueue::main()); }

const std::shared_ptr<DispatchQueue>& DispatchQueue::main() {
  static auto* const queue = new std::shared_ptr<DispatchQueue>(new MainQueue);
  return *queue;
}

void MainQueue::checkCaller() const {
  if (!isInitialThread()) throw std::logic_error("the main queue runs on the initial thread only");
  if (isCurrent()) throw std::logic_error("the main queue is run from one of its own tasks");
}

/// -1 where there is none.
int MainQueue::descriptor() {
  // It announces what may have come before it.
  return keptDescriptor(descriptor_, [] { return eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK); });
}

void MainQueue::schedule() { eventfd_write(descriptor(), 1); }

std::size_t MainQueue::drain(bool untilStopped) {
  checkCaller();
  eventfd_t announced;
  eventfd_read(descriptor(), &announced);
  if (isIdle()) return 0;

  const RunningFrame frame(this);
  std::size_t ran = 0;
  for (takeTasks(); hasPending() && !(untilStopped && stopping_.load(std::memory_order_relaxed)); ++ran)
    runOne();
  if (hasPending() || !release()) schedule();
  IdleSignal::notify();
  return ran;
}

void MainQueue::run() {
  checkCaller();
  while (!stopping_.load()) {
    if (drain(true) != 0) continue;
    pollfd watched{descriptor(), POLLIN, 0};
    poll(&watched, 1, watched.fd < 0 ? kUnannouncedMilliseconds : -1);
  }
  stopping_ = false;
}

void MainQueue::stop() {
  stopping_ = true;
  schedule();
}

bool MainQueue::runNow(Task& task) {
  if (isCurrent()) throw std::logic_error("sync from a task of the main queue");
  if (!isInitialThread()) return false;
  bool done = false;
  async([&task, &done] {
    task();
    task.reset();
    done = true;
  });
  while (!done) drain();
  return true;
}

void runMainQueue() { MainQueue::shared().run(); }
void stopMainQueue() { MainQueue::shared().stop(); }
int mainQueueDescriptor() { return MainQueue::shared().descriptor(); }
std::size_t drainMainQueue() { return MainQueue::shared().drain(); }

}  // namespace larkspan::platform

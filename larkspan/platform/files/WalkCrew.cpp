#include "larkspan/platform/files/WalkCrew.h"

#include "larkspan/platform/files/DirectoryStack.h"

#include <algorithm>
#include <system_error>

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

namespace larkspan::platform {

namespace {

/// Walks may take half of the descriptors that the process is allowed.
unsigned threadsAllowed() {
  struct rlimit descriptors;
  if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return 1;
  const auto fitting = descriptors.rlim_cur / 2 / DirectoryStack::kMaximumDescriptors;
  const unsigned wanted = std::min(std::thread::hardware_concurrency(), WalkCrew::kMaximumThreads);
  return static_cast<unsigned>(std::clamp<rlim_t>(fitting, 1, std::max(wanted, 1u)));
}

/// Starts a thread with all signals blocked, so that the program's handlers run on the program's threads.
template <typename F>
std::thread startThread(F body) {
  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread thread;
  try {
    thread = std::thread(std::move(body));
  } catch (const std::system_error&) {
    // The kernel refuses; the walk goes on without.
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread;
}

}  // namespace

bool WalkCrew::Part::mustWait() {
  if (holders_.fetch_sub(1, std::memory_order_acq_rel) != 1) return true;
  holders_.store(1, std::memory_order_relaxed);
  return false;
}

WalkCrew::WalkCrew() : helpersAllowed_(threadsAllowed() - 1) {}

WalkCrew::~WalkCrew() {
  {
    const std::lock_guard lock(mutex_);
    ends_ = true;
  }
  wake_.notify_all();
  for (std::thread& helper : helpers_) helper.join();
}

void WalkCrew::run(std::shared_ptr<Part> part) {
  {
    const std::lock_guard lock(mutex_);
    ++alive_;
    queue_.push_back(std::move(part));
  }
  work(false);
}

void WalkCrew::give(std::shared_ptr<Part> part, std::shared_ptr<Part> giver) {
  if (giver) giver->holders_.fetch_add(1, std::memory_order_relaxed);
  part->giver_ = std::move(giver);
  const std::lock_guard lock(mutex_);
  ++alive_;
  queue_.push_back(std::move(part));
  if (idle_ > 0) {
    wake_.notify_one();
  } else if (helpers_.size() < helpersAllowed_) {
    std::thread helper = startThread([this] { work(true); });
    if (helper.joinable()) {
      ::pthread_setname_np(helper.native_handle(), "lks-walk");
      helpers_.push_back(std::move(helper));
    } else {
      helpersAllowed_ = helpers_.size();
    }
  }
  updateAppetite();
}

void WalkCrew::updateAppetite() {
  const bool isFull = alive_ >= kMaximumParts;
  appetite_.store(isFull ? 0 : static_cast<int>(helpersAllowed_) - static_cast<int>(queue_.size()),
                  std::memory_order_relaxed);
}

void WalkCrew::work(bool isHelper) {
  DirectoryReader reader;
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    wake_.wait(lock, [&] { return !queue_.empty() || (isHelper ? ends_ : alive_ == 0); });
    --idle_;
    if (queue_.empty()) return;
    std::shared_ptr<Part> part = std::move(queue_.front());
    queue_.pop_front();
    updateAppetite();
    lock.unlock();
    const bool isDone = part->run(reader);
    std::shared_ptr<Part> giver;
    if (isDone) giver = std::move(part->giver_);
    part.reset();
    if (giver && giver->holders_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      giver->holders_.store(1, std::memory_order_relaxed);
    } else {
      giver.reset();
    }
    lock.lock();
    if (giver) queue_.push_front(std::move(giver));
    if (isDone && --alive_ == 0) wake_.notify_all();
  }
}

}  // namespace larkspan::platform

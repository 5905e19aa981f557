#include "larkspan/platform/files/WalkCrew.h"

#include "larkspan/platform/dispatch/Thread.h"

#include <algorithm>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>

namespace larkspan::platform {

namespace {

unsigned partsAllowed() {
  struct rlimit descriptors;
  if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return 1;
  const rlim_t fitting = descriptors.rlim_cur / 2 / DirectoryStack::kMaximumDescriptors;
  return static_cast<unsigned>(std::clamp<rlim_t>(fitting, 1, WalkCrew::kMaximumParts));
}

/// Entries that a part does before it may give work away: less is done sooner than given.
constexpr int64_t kWorthSharing = 256;
/// How often a thread looks for a folder to close before it sleeps.
constexpr int kPatience = 2000;
/// Bytes of entries at once that let expect more, worth a part of their own.
constexpr std::size_t kManyEntries = 16 * 1024;

/// Tells the processor that this is a loop that waits.
void relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("isb");
#endif
}

}  // namespace

bool WalkCrew::Part::mayGive() const {
  return done_ >= kWorthSharing && crew_.appetite_.load(std::memory_order_relaxed) > 0;
}

int WalkCrew::Part::enter(const std::string& name, struct statx& facts) {
  const int error = stack_.enter(name, facts);
  crew_.close(stack_.takeNeedless(), unattended_);
  return error;
}

void WalkCrew::Part::leave() {
  stack_.leave();
  crew_.close(stack_.takeNeedless(), unattended_);
}

void WalkCrew::Part::giveAway() {
  DirectoryStack::Start start;
  std::size_t level;
  if (mayGive() && stack_.split(start, level)) give(std::move(start), level, {});
}

void WalkCrew::Part::shareReading(int reading, std::string_view entries) {
  if (entries.size() < kManyEntries || !mayGive()) return;
  Descriptor shared(::fcntl(reading, F_DUPFD_CLOEXEC, 0));
  DirectoryStack::Start start;
  if (shared && stack_.startAtTop(start)) give(std::move(start), stack_.depth() - 1, std::move(shared));
}

bool WalkCrew::Part::mustWait(Awaited& awaited) {
  awaited.giver_ = shared_from_this();
  if (awaited.holders_.fetch_sub(1, std::memory_order_acq_rel) != 1) return true;
  awaited.giver_.reset();
  return false;
}

WalkCrew::WalkCrew()
    : partsAllowed_(partsAllowed()),
      helpersAllowed_(
          std::clamp(std::thread::hardware_concurrency(), 1u, std::min(kMaximumThreads, partsAllowed_)) - 1) {
}

WalkCrew::~WalkCrew() {
  std::unique_lock lock(mutex_);
  ends_ = true;
  callAll();
  wake_.wait(lock, [this] { return helpers_ == 0; });
}

void WalkCrew::run(std::shared_ptr<Part> part) {
  {
    const std::lock_guard lock(mutex_);
    ++alive_;
    queue_.push_back(std::move(part));
  }
  work(false);
}

void WalkCrew::give(std::shared_ptr<Part> part, std::shared_ptr<Awaited> awaited) {
  if (awaited) awaited->holders_.fetch_add(1, std::memory_order_relaxed);
  part->awaited_ = std::move(awaited);
  const std::lock_guard lock(mutex_);
  ++alive_;
  queue_.push_back(std::move(part));
  callHelper();
  updateAppetite();
}

void WalkCrew::callAll() {
  isCalled_.store(true, std::memory_order_relaxed);
  wake_.notify_all();
}

void WalkCrew::callHelper() {
  if (idle_ > 0) {
    isCalled_.store(true, std::memory_order_relaxed);
    wake_.notify_one();
  } else if (helpers_ < helpersAllowed_) {
    try {
      (isLowPriorityThread() ? startLowPriorityThread : startThread)("lks-walk", [this] { work(true); });
      ++helpers_;
    } catch (const std::system_error&) {
      helpersAllowed_ = helpers_;  // The kernel refuses; the walk goes on without.
    }
  }
}

void WalkCrew::updateAppetite() {
  const bool isFull = alive_ >= partsAllowed_;
  appetite_.store(isFull ? 0 : static_cast<int>(helpersAllowed_) - static_cast<int>(queue_.size()),
                  std::memory_order_relaxed);
}

void WalkCrew::close(Descriptor folder, unsigned& unattended) {
  if (!folder) return;
  int state = toClose_.load(std::memory_order_relaxed);
  if (state == kNone && toClose_.compare_exchange_strong(state, folder.get(), std::memory_order_relaxed)) {
    folder.release();
  } else if (state == kUnattended && ++unattended % kWorthSharing == 0) {
    const std::lock_guard lock(mutex_);
    callHelper();
  }
}

void WalkCrew::closeForOthers() {
  int folder = kUnattended;
  if (!toClose_.compare_exchange_strong(folder, kNone, std::memory_order_relaxed)) return;
  for (int waits = 0; waits < kPatience && !isCalled_.load(std::memory_order_relaxed); ++waits) {
    folder = toClose_.load(std::memory_order_relaxed);
    if (folder == kNone) {
      relax();
    } else {
      toClose_.store(kNone, std::memory_order_relaxed);
      ::close(folder);
      waits = 0;
    }
  }
  const Descriptor last(toClose_.exchange(kUnattended, std::memory_order_relaxed));
}

void WalkCrew::work(bool isHelper) {
  DirectoryReader reader;
  std::unique_lock lock(mutex_);
  for (;;) {
    const auto isDue = [&] { return !queue_.empty() || (isHelper ? ends_ : alive_ == 0); };
    ++idle_;
    while (!isDue()) {
      isCalled_.store(false, std::memory_order_relaxed);
      lock.unlock();
      closeForOthers();
      lock.lock();
      wake_.wait(lock, [&] { return isDue() || isCalled_.load(std::memory_order_relaxed); });
    }
    --idle_;
    if (queue_.empty()) {
      if (!isHelper) return;
      --helpers_;
      wake_.notify_all();  // Under the lock: whoever ends the crew must find nobody here.
      return;
    }
    std::shared_ptr<Part> part = std::move(queue_.front());
    queue_.pop_front();
    updateAppetite();
    lock.unlock();
    const bool isDone = part->run(reader);
    std::shared_ptr<Part> giver;
    if (isDone && part->awaited_) {
      Awaited& awaited = *part->awaited_;
      if (awaited.holders_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        // Which asks again whether it must wait.
        awaited.holders_.store(1, std::memory_order_relaxed);
        giver = std::move(awaited.giver_);
      }
    }
    part.reset();
    lock.lock();
    if (giver) queue_.push_front(std::move(giver));
    if (!isDone) continue;
    --alive_;
    updateAppetite();
    if (alive_ == 0) callAll();
  }
}

}  // namespace larkspan::platform

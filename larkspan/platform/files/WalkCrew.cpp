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
/// Bytes of entries at once that let expect more, worth a part of their own.
constexpr std::size_t kManyEntries = 16 * 1024;

}  // namespace

bool WalkCrew::Part::mayGive() const {
  return done_ >= kWorthSharing && crew_.appetite_.load(std::memory_order_relaxed) > 0;
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
  wake_.notify_all();
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

void WalkCrew::callHelper() {
  if (idle_ > 0) {
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

void WalkCrew::work(bool isHelper) {
  DirectoryReader reader;
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    wake_.wait(lock, [&] { return !queue_.empty() || (isHelper ? ends_ : alive_ == 0); });
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
    if (alive_ == 0) wake_.notify_all();
  }
}

}  // namespace larkspan::platform

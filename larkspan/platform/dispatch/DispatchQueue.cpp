#include "larkspan/platform/dispatch/DispatchQueue.h"

#include "larkspan/platform/dispatch/SerialQueue.h"
#include "larkspan/platform/dispatch/TimerHeap.h"

#include <condition_variable>
#include <mutex>

namespace larkspan::platform {
namespace {

class ConcurrentQueue final : public PooledQueue {
 public:
  enum class Life { counted, endless };

  ConcurrentQueue(std::string label, QualityOfService quality, Life life)
      : life_(life), pool_(WorkerPool::forQuality(quality)), label_(std::move(label)), quality_(quality) {}

  const std::string& label() const override { return label_; }
  QualityOfService qualityOfService() const override { return quality_; }
  bool isCurrent() const override { return RunningFrame::contains(this); }

  void async(Task task) override {
    TaskNode* const node = TaskNode::make(std::move(task));
    // A queue that never ends spares its tasks the counting of references.
    node->owner = std::shared_ptr<PooledQueue>(life_ == Life::counted ? shared_from_this() : nullptr, this);
    pool_.push(node);
  }

  void execute(TaskNode* node) noexcept override {
    const RunningFrame frame(this);
    node->task();
    node->task.reset();
    TaskNode::recycle(node);
  }

 private:
  const Life life_;
  WorkerPool& pool_;
  const std::string label_;
  const QualityOfService quality_;
};

}  // namespace

std::shared_ptr<DispatchQueue> DispatchQueue::makeSerial(std::string label, QualityOfService quality) {
  return std::make_shared<SerialQueue>(std::move(label), quality);
}

std::shared_ptr<DispatchQueue> DispatchQueue::makeConcurrent(std::string label, QualityOfService quality) {
  return std::make_shared<ConcurrentQueue>(std::move(label), quality, ConcurrentQueue::Life::counted);
}

const std::shared_ptr<DispatchQueue>& DispatchQueue::global(QualityOfService quality) {
  struct Globals {
    static std::shared_ptr<DispatchQueue> makeConcurrent(const char* label, QualityOfService quality) {
      return std::make_shared<ConcurrentQueue>(label, quality, ConcurrentQueue::Life::endless);
    }
    std::shared_ptr<DispatchQueue> interactive =
        makeConcurrent("global.interactive", QualityOfService::userInteractive);
    std::shared_ptr<DispatchQueue> initiated =
        makeConcurrent("global.initiated", QualityOfService::userInitiated);
    std::shared_ptr<DispatchQueue> normal = makeConcurrent("global.default", QualityOfService::defaultClass);
    std::shared_ptr<DispatchQueue> utility = makeConcurrent("global.utility", QualityOfService::utility);
    std::shared_ptr<DispatchQueue> background =
        makeConcurrent("global.background", QualityOfService::background);
  };
  static const auto* const globals = new Globals;
  switch (quality) {
    case QualityOfService::userInteractive:
      return globals->interactive;
    case QualityOfService::userInitiated:
      return globals->initiated;
    case QualityOfService::utility:
      return globals->utility;
    case QualityOfService::background:
      return globals->background;
    case QualityOfService::defaultClass:
      break;
  }
  return globals->normal;
}

void DispatchQueue::after(std::chrono::nanoseconds delay, Task task) {
  const auto heap = TimerHeap::current();
  heap->add(heap->deadlineIn(delay), std::chrono::nanoseconds::zero(), shared_from_this(), std::move(task));
}

bool DispatchQueue::runNow(Task&) { return false; }

void DispatchQueue::sync(Task task) {
  if (runNow(task)) return;
  WorkerPool::Kept::handOver();
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  async([&, caller = RunningFrame::innermost] {
    RunningFrame* const here = RunningFrame::innermost;
    here->outer = caller;
    task();
    task.reset();
    here->outer = nullptr;
    const std::lock_guard lock(mutex);
    done = true;
    finished.notify_one();
  });
  std::unique_lock lock(mutex);
  finished.wait(lock, [&done] { return done; });
}

}  // namespace larkspan::platform

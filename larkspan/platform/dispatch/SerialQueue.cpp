#include "larkspan/platform/dispatch/SerialQueue.h"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace larkspan::platform {
namespace {

// Tasks run before a queue looks whether others wait for its worker.
constexpr unsigned kTurn = 16;

// A runner that keeps pace with a thread which posts one task after the other takes them from cache lines that the other
// is still writing around, and both wait for each other. After so many tasks at once it leaves the other alone that long.
constexpr unsigned kStream = 16;
constexpr unsigned kLongStream = 512;
constexpr auto kPause = std::chrono::microseconds(2);

}  // namespace

thread_local RunningFrame* RunningFrame::innermost = nullptr;

bool RunningFrame::contains(const DispatchQueue* queue) {
  for (const RunningFrame* frame = innermost; frame; frame = frame->outer)
    if (frame->queue == queue) return true;
  return false;
}

std::atomic<int> SerialQueue::inlineRuns{0};

SerialQueue::SerialQueue(std::string label, QualityOfService quality)
    : pool_(WorkerPool::forQuality(quality)), label_(std::move(label)), quality_(quality) {}

SerialQueue::~SerialQueue() = default;

TaskNode* SerialQueue::busy() {
  static auto* const mark = new TaskNode;
  return mark;
}

void SerialQueue::async(Task task) {
  TaskNode* const node = TaskNode::make(std::move(task));
  TaskNode* top = head_.load(std::memory_order_relaxed);
  do {
    node->next = top;
  } while (!head_.compare_exchange_weak(top, node, std::memory_order_acq_rel, std::memory_order_relaxed));
  if (!top) schedule();
}

void SerialQueue::schedule() {
  scheduling_.owner = std::static_pointer_cast<PooledQueue>(shared_from_this());
  pool_.push(&scheduling_);
}

void SerialQueue::takeTasks() {
  TaskNode** end = &pending_;
  while (*end) end = &(*end)->next;
  *end = TaskNode::reverse(head_.exchange(busy(), std::memory_order_acq_rel), busy());
}

void SerialQueue::letMoreCome(unsigned justRan) const {
  if (justRan < kStream || justRan >= kLongStream || head_.load(std::memory_order_relaxed) == busy()) return;
  const auto end = std::chrono::steady_clock::now() + kPause;
  while (std::chrono::steady_clock::now() < end) {
  }
}

void SerialQueue::runOne() noexcept {
  TaskNode* const node = pending_;
  pending_ = node->next;
  node->task();
  node->task.reset();
  TaskNode::recycle(node);
}

bool SerialQueue::release() {
  TaskNode* expected = busy();
  return head_.compare_exchange_strong(expected, nullptr, std::memory_order_acq_rel);
}

void SerialQueue::execute(TaskNode*) noexcept {
  const RunningFrame frame(this);
  unsigned ranBefore = 0;
  for (unsigned ran = 0;;) {
    if (!hasPending()) {
      letMoreCome(ran - std::exchange(ranBefore, ran));
      takeTasks();
      if (!hasPending()) {
        if (release()) return;
        continue;
      }
    }
    runOne();
    if (++ran % kTurn == 0 && pool_.hasWaiting()) return schedule();
  }
}

bool SerialQueue::runNow(Task& task) {
  if (isCurrent()) throw std::logic_error("sync from a task of the same serial queue: " + label_);
  ++inlineRuns;
  TaskNode* idle = nullptr;
  const bool acquired = head_.compare_exchange_strong(idle, busy(), std::memory_order_acq_rel);
  if (acquired) {
    const RunningFrame frame(this);
    [&task]() noexcept {
      task();
      task.reset();
    }();
    if (!release()) schedule();
  }
  --inlineRuns;
  IdleSignal::notify();
  return acquired;
}

}  // namespace larkspan::platform

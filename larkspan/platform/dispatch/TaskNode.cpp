#include "larkspan/platform/dispatch/TaskNode.h"

#include <mutex>
#include <vector>

namespace larkspan::platform {
namespace {

constexpr unsigned kBatch = 64;
constexpr std::size_t kMaxBatches = 256;

void deleteChain(TaskNode* node) {
  while (node) delete std::exchange(node, node->next);
}

// Full batches on their way from threads that run tasks to threads that post them.
class Depot {
 public:
  static Depot& shared() {
    static auto* const depot = new Depot;
    return *depot;
  }

  void put(TaskNode* chain) {
    {
      const std::lock_guard lock(mutex_);
      if (chains_.size() < kMaxBatches) {
        chains_.push_back(chain);
        return;
      }
    }
    deleteChain(chain);
  }

  TaskNode* take() {
    const std::lock_guard lock(mutex_);
    if (chains_.empty()) return nullptr;
    TaskNode* const chain = chains_.back();
    chains_.pop_back();
    return chain;
  }

 private:
  Depot() { chains_.reserve(kMaxBatches); }
  std::mutex mutex_;
  std::vector<TaskNode*> chains_;
};

// The nodes of one thread: a batch in use and a full one in reserve, so that a thread which posts and runs
// in turn does not go to the depot each time.
struct Cache {
  TaskNode* active = nullptr;
  unsigned count = 0;
  TaskNode* reserve = nullptr;
  bool closed = false;  // The thread is ending; a destructor that runs later may still post.

  ~Cache() {
    closed = true;
    deleteChain(std::exchange(active, nullptr));
    deleteChain(std::exchange(reserve, nullptr));
  }
};

thread_local Cache cache;

}  // namespace

TaskNode* TaskNode::make(Task&& task) {
  Cache& mine = cache;
  if (!mine.active && !mine.closed) {
    mine.active = mine.reserve ? std::exchange(mine.reserve, nullptr) : Depot::shared().take();
    mine.count = mine.active ? kBatch : 0;
  }
  TaskNode* node = mine.active;
  if (node) {
    mine.active = node->next;
    --mine.count;
  } else {
    node = new TaskNode;
  }
  node->task = std::move(task);
  return node;
}

void TaskNode::recycle(TaskNode* node) {
  Cache& mine = cache;
  if (mine.closed) {
    delete node;
    return;
  }
  if (mine.count == kBatch) {
    if (mine.reserve) Depot::shared().put(mine.reserve);
    mine.reserve = std::exchange(mine.active, nullptr);
    mine.count = 0;
  }
  node->next = mine.active;
  mine.active = node;
  ++mine.count;
}

}  // namespace larkspan::platform

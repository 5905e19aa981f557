#include "larkspan/platform/dispatch/TaskNode.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace larkspan::platform {
namespace {

constexpr std::size_t kSlabSize = 32 * 1024;
constexpr unsigned kBatch = (kSlabSize - alignof(TaskNode)) / sizeof(TaskNode);
constexpr std::size_t kMaxBatches = 128;

// Nodes are made side by side, and many of them, so that `fetchAhead` can mostly tell where the next ones of a long queue
// lie. A slab lies at a multiple of its size, and ends when all of its nodes have been given up.
struct alignas(kSlabSize) Slab {
  std::atomic<unsigned> givenUp{0};
  TaskNode nodes[kBatch];
};

// A node that another processor wrote last is slow to come, and the one after it could be asked for only then. So this
// asks for one some steps after `next`, guessing that they lie as far apart as these two do.
void fetchAhead(const TaskNode* node, const TaskNode* next, unsigned steps) {
  const auto from = reinterpret_cast<uintptr_t>(next);
  __builtin_prefetch(
      reinterpret_cast<const void*>(from + steps * (from - reinterpret_cast<uintptr_t>(node))));
}

TaskNode* makeChain() {
  TaskNode* const nodes = (new Slab)->nodes;
  for (unsigned i = 0; i + 1 < kBatch; ++i) nodes[i].next = &nodes[i + 1];
  return nodes;
}

void giveUpChain(TaskNode* node) {
  while (node) {
    auto* const slab = reinterpret_cast<Slab*>(reinterpret_cast<uintptr_t>(node) & ~(kSlabSize - 1));
    node = node->next;
    if (slab->givenUp.fetch_add(1, std::memory_order_acq_rel) + 1 == kBatch) delete slab;
  }
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
    giveUpChain(chain);
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
    giveUpChain(std::exchange(active, nullptr));
    giveUpChain(std::exchange(reserve, nullptr));
  }
};

thread_local Cache cache;

}  // namespace

TaskNode* TaskNode::make(Task&& task) {
  Cache& mine = cache;
  if (mine.closed) {
    // Nobody would take the others out of this cache.
    TaskNode* const node = makeChain();
    giveUpChain(node->next);
    node->task = std::move(task);
    return node;
  }
  if (!mine.active) {
    mine.active = mine.reserve ? std::exchange(mine.reserve, nullptr) : Depot::shared().take();
    if (!mine.active) mine.active = makeChain();
    mine.count = kBatch;
  }
  TaskNode* const node = mine.active;
  mine.active = node->next;
  fetchAhead(node, mine.active, 4);
  --mine.count;
  node->task = std::move(task);
  return node;
}

void TaskNode::recycle(TaskNode* node) {
  Cache& mine = cache;
  if (mine.closed) {
    node->next = nullptr;
    giveUpChain(node);
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

TaskNode* TaskNode::reverse(TaskNode* newest, const TaskNode* bottom) {
  TaskNode* first = nullptr;
  while (newest && newest != bottom) {
    TaskNode* const older = newest->next;
    fetchAhead(newest, older, 8);
    newest->next = first;
    first = std::exchange(newest, older);
  }
  return first;
}

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/dispatch/Task.h"

#include <memory>

namespace larkspan::platform {

class PooledQueue;

/// A queued task. Nodes are recycled: each thread keeps some, and hands surplus on in batches to threads that
/// post more than they run.
struct TaskNode {
  TaskNode* next = nullptr;
  std::shared_ptr<PooledQueue> owner;  ///< The queue to run it; set only on nodes given to a worker pool.
  Task task;

  static TaskNode* make(Task&& task);
  /// Takes a node back whose task and owner are empty.
  static void recycle(TaskNode* node);
  /// Turns a stack, which ends at `bottom` or at null, into a list that begins with its oldest node and ends at null.
  static TaskNode* reverse(TaskNode* newest, const TaskNode* bottom = nullptr);
};

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/base/Descriptor.h"

#include <sys/types.h>

namespace larkspan::platform {

/// Everything the child needs, laid out beforehand: between its birth and execve(2) it takes no memory and no
/// lock. All of it is borrowed until `spawn` returns.
struct SpawnPlan {
  struct Passed {
    int number;  ///< In the child.
    int source;  ///< In this process.
    int spare;   ///< For the child's own use.
  };

  const char* program;
  char* const* arguments;
  char* const* environment;
  const char* folder;  ///< Null keeps this process's.
  /// All that the child gets, 0 to 2 included; the highest number is at most 255.
  Passed* passed;
  int passedCount;
  int parentDeathSignal;
  bool ownSession;
  /// Where in the environment the child writes its process identifier as text: so many zeros. Null for nowhere.
  char* processId;
  static constexpr int kProcessIdSize = 12;
};

/// A child that runs, or the step that failed.
struct Spawned {
  pid_t process = -1;
  Descriptor handle;  ///< The child's pidfd; empty when starting failed.
  int errorNumber = 0;
  const char* failedStep = nullptr;
};

/// Starts a child and returns once it runs its program or failed to.
Spawned spawn(const SpawnPlan& plan);

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/dispatch/Task.h"

namespace larkspan::platform {

/// Starts a detached thread of the library: all signals blocked, so that the program's handlers run on the
/// program's threads, and of normal priority even if the caller is not. `name` shows in ps(1): at most 15
/// bytes. Throws std::system_error when the kernel refuses the thread.
void startThread(const char* name, Task body);

/// The same at low CPU and I/O priority.
void startLowPriorityThread(const char* name, Task body);
/// Whether the caller is a thread that was started so.
bool isLowPriorityThread();

/// Whether the caller is the thread that the process began with.
bool isInitialThread();

}  // namespace larkspan::platform

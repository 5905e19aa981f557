#pragma once

#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/process/Child.h"

#include <memory>
#include <variant>

namespace larkspan::platform {

/// A program that has been started, as far as this process has a hold on it.
class LaunchedProcess {
 public:
  virtual ~LaunchedProcess() = default;
  /// Ends it at once, whatever it does. Without effect when it has ended. Any thread.
  virtual void kill() = 0;
};

/// Starts extensions and services.
/// Thread: any; `launch` may block until the program runs, and `onExit` is called once, on any thread, for
///         each launch that succeeded.
class Launcher {
 public:
  virtual ~Launcher() = default;
  /// As `Child::start`: what the options borrow is the caller's again when this returns.
  virtual std::variant<std::shared_ptr<LaunchedProcess>, Error> launch(const ChildOptions& options,
                                                                       Child::ExitHandler onExit) = 0;

  /// The launcher in use: one that starts processes, unless a test has installed another.
  static std::shared_ptr<Launcher> current();
};

/// Replaces the launcher for as long as it lives. For tests.
class ScopedLauncher {
 public:
  explicit ScopedLauncher(std::shared_ptr<Launcher> launcher);
  ~ScopedLauncher();
  ScopedLauncher(const ScopedLauncher&) = delete;
  ScopedLauncher& operator=(const ScopedLauncher&) = delete;

 private:
  std::shared_ptr<Launcher> previous_;
};

}  // namespace larkspan::platform

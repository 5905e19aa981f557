#pragma once

#include "larkspan/platform/appext/Manifest.h"
#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/base/Error.h"

#include <functional>
#include <memory>
#include <string>
#include <variant>

namespace larkspan::platform {

/// A started extension, as far as its host has a hold on it.
class LaunchedProcess {
 public:
  virtual ~LaunchedProcess() = default;
  /// Ends it at once, whatever it does. Without effect when it has ended. Any thread.
  virtual void kill() = 0;
};

/// Starts extensions.
/// Thread: any; `launch` may block until the program runs, and `onExit` is called once, on any thread, for
///         each launch that succeeded.
class Launcher {
 public:
  using ExitHandler = std::function<void(const std::string& how)>;

  virtual ~Launcher() = default;
  /// Starts the manifest's program with `socket` as its descriptor 3. The caller closes its own end of that
  /// when this returns; it may also be moved from on success.
  virtual std::variant<std::shared_ptr<LaunchedProcess>, Error> launch(const Manifest& manifest,
                                                                       Descriptor& socket,
                                                                       ExitHandler onExit) = 0;

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

/// The descriptor at which an extension finds its connection.
inline constexpr int kExtensionDescriptor = 3;
/// The variable in which an extension finds its own identifier.
inline constexpr const char* kExtensionIdentifierVariable = "LARKSPAN_EXTENSION_IDENTIFIER";

}  // namespace larkspan::platform

#include "larkspan/platform/appext/Launcher.h"

#include "larkspan/platform/appext/ExtensionLog.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/log/LogBudget.h"
#include "larkspan/platform/process/Child.h"

#include <mutex>
#include <utility>

#include <signal.h>
#include <unistd.h>

namespace larkspan::platform {

namespace {

class ChildProcess final : public LaunchedProcess {
 public:
  explicit ChildProcess(std::shared_ptr<Child> child) : child_(std::move(child)) {}
  void kill() override { child_->kill(SIGKILL); }

 private:
  const std::shared_ptr<Child> child_;
};

/// Takes what an extension prints to the log, as much of it as is reasonable. On the input/output thread.
class PrintLog {
 public:
  explicit PrintLog(std::string identifier) : identifier_(std::move(identifier)) {}

  void take(std::string_view line) {
    if (budget_.allows(line.size()))
      extensionLog().write(LogLevel::standard, identifier_ + ": " + std::string(line));
  }

 private:
  const std::string identifier_;
  LogBudget budget_{[this](std::size_t lines) {
    extensionLog().write(LogLevel::standard,
                         format("%@ prints too much: %zu lines were dropped", identifier_, lines));
  }};
};

class ProcessLauncher final : public Launcher {
 public:
  std::variant<std::shared_ptr<LaunchedProcess>, Error> launch(const Manifest& manifest, Descriptor& socket,
                                                               ExitHandler onExit) override {
    ChildOptions options;
    options.arguments = manifest.exec;
    options.environment.emplace();
    const std::string variable = std::string(kExtensionIdentifierVariable) + "=";
    for (char** entry = ::environ; *entry; ++entry) {
      if (!std::string_view(*entry).starts_with(variable)) options.environment->emplace_back(*entry);
    }
    options.environment->push_back(variable + manifest.identifier);
    options.workingFolder = "/";
    options.descriptors = {{kExtensionDescriptor, socket.get()}};
    // An extension leaves at end of file; a stopped or hung one goes with its host all the same.
    options.parentDeathSignal = SIGKILL;
    options.standardErrorLine =
        [log = std::make_shared<PrintLog>(manifest.identifier)](std::string_view line) { log->take(line); };
    auto child = Child::start(
        options, [onExit = std::move(onExit)](ExitStatus status) { onExit(status.description()); });
    if (auto* error = std::get_if<Error>(&child)) return std::move(*error);
    return std::make_shared<ChildProcess>(std::get<std::shared_ptr<Child>>(std::move(child)));
  }
};

struct Installed {
  std::mutex mutex;
  std::shared_ptr<Launcher> launcher = std::make_shared<ProcessLauncher>();
};

Installed& installed() {
  static auto* value = new Installed;
  return *value;
}

std::shared_ptr<Launcher> install(std::shared_ptr<Launcher> launcher) {
  const std::lock_guard lock(installed().mutex);
  return std::exchange(installed().launcher, std::move(launcher));
}

}  // namespace

std::shared_ptr<Launcher> Launcher::current() {
  const std::lock_guard lock(installed().mutex);
  return installed().launcher;
}

ScopedLauncher::ScopedLauncher(std::shared_ptr<Launcher> launcher)
    : previous_(install(std::move(launcher))) {}
ScopedLauncher::~ScopedLauncher() { install(std::move(previous_)); }

}  // namespace larkspan::platform

#include "larkspan/platform/process/Launcher.h"

#include <mutex>
#include <utility>

#include <signal.h>

namespace larkspan::platform {

namespace {

class ChildProcess final : public LaunchedProcess {
 public:
  explicit ChildProcess(std::shared_ptr<Child> child) : child_(std::move(child)) {}
  void kill() override { child_->kill(SIGKILL); }

 private:
  const std::shared_ptr<Child> child_;
};

class ProcessLauncher final : public Launcher {
 public:
  std::variant<std::shared_ptr<LaunchedProcess>, Error> launch(const ChildOptions& options,
                                                               Child::ExitHandler onExit) override {
    auto child = Child::start(options, std::move(onExit));
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

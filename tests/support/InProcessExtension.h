#pragma once

#include "larkspan/host/LKSOpaqueExtension.h"
#include "larkspan/host/LKSRemoteExtensionContext.h"
#include "larkspan/platform/appext/Launcher.h"
#include "larkspan/provider/LKSExtension.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace larkspan::tests {

/// "Starts" an extension within this process, at the other end of a real socket: everything is encoded,
/// checked and decoded as between two processes.
class InProcessExtension : public platform::Launcher,
                           public std::enable_shared_from_this<InProcessExtension> {
 public:
  explicit InProcessExtension(std::shared_ptr<LKSExtension> provider) : provider_(std::move(provider)) {}

  std::atomic<int> launches{0};

  std::variant<std::shared_ptr<platform::LaunchedProcess>, platform::Error> launch(
      const platform::Manifest&, platform::Descriptor& socket, ExitHandler) override {
    ++launches;
    auto process = std::make_shared<Process>();
    platform::Transport::Handlers handlers;
    // Requests live as long as the transport's handlers.
    auto contexts = std::make_shared<std::map<uint32_t, std::shared_ptr<LKSRemoteExtensionContext>>>();
    auto own = std::make_shared<std::weak_ptr<platform::Transport>>();
    auto made = std::make_shared<std::mutex>();
    const std::lock_guard lock(*made);
    handlers.onOpen = [this, contexts, own, made](uint32_t channel) {
      std::shared_ptr<platform::Transport> transport;
      {
        const std::lock_guard wait(*made);
        transport = own->lock();
      }
      auto connection = platform::Connection::accept(transport, channel);
      auto context = LKSRemoteExtensionContext::make(platform::UUID::random(), connection);
      provider_->beginRequestWithExtensionContext(context);
      (*contexts)[channel] = context;
      return connection;
    };
    handlers.onClose = [process](const platform::Error&) { process->hold(nullptr); };
    process->hold(platform::Transport::make(std::move(socket), "host", std::move(handlers)));
    *own = process->held();
    const std::lock_guard guard(mutex_);
    process_ = process;
    return process;
  }

  /// What a crash looks like to the host.
  void crash() {
    const std::lock_guard lock(mutex_);
    if (process_) process_->kill();
  }

 private:
  struct Process : platform::LaunchedProcess {
    void kill() override {
      if (const auto transport = held()) transport->close(platform::Error("test", 1, "killed"));
    }
    std::shared_ptr<platform::Transport> held() {
      const std::lock_guard lock(mutex);
      return current;
    }
    void hold(std::shared_ptr<platform::Transport> other) {
      const std::lock_guard lock(mutex);
      current.swap(other);
    }
    std::mutex mutex;
    std::shared_ptr<platform::Transport> current;
  };

  const std::shared_ptr<LKSExtension> provider_;
  std::mutex mutex_;
  std::shared_ptr<Process> process_;
};

/// A handle on an extension whose manifest is only made up; each path is another extension.
inline std::shared_ptr<LKSOpaqueExtension> handleFor(const std::string& path) {
  platform::Manifest manifest;
  manifest.path = path;
  manifest.identifier = "test.extension";
  manifest.exec = {"/nonexistent"};
  return LKSOpaqueExtension::initWithExtension(std::make_shared<platform::Extension>(manifest));
}

}  // namespace larkspan::tests

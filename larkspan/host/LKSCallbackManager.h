#pragma once

#include "larkspan/host/LKSExtensionProtocols.h"
#include "larkspan/host/LKSRemoteExtensionContext.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace larkspan {

/// How an extension pushes partial results and change notices to its host: in the order of the calls, over
/// the connection of the latest request.
/// Owner:   `sharedInstance` lives as long as the process.
/// Thread:  any; nothing here blocks. Items are copied before the call returns.
/// Failure: what cannot be delivered is logged and dropped, silently when there is no request.
class LKSCallbackManager {
 public:
  static LKSCallbackManager& sharedInstance();

  /// Resource items found so far, while the reply to "RESOURCES?" is still being built.
  void sendPartialResourceItems(const Items& items);
  void notifyResourcesDidChange(const Items& items);
  void notifyTipsDidChange(const Items& items);
  void notifyTotalSpaceUsedDidChange(int64_t bytes);

  /// The host at the other end of the current context's connection; null without a context.
  std::shared_ptr<LKSExtensionCallbackProtocol> hostProxy();
  std::shared_ptr<LKSRemoteExtensionContext> context();
  /// Null forgets earlier ones too; otherwise the host is still reached through an earlier request when this
  /// one ends.
  void setContext(std::shared_ptr<LKSRemoteExtensionContext> context);

  /// The extension's own identifier, which every callback carries.
  const std::string& bundleIdentifier() const { return bundleIdentifier_; }
  const std::shared_ptr<platform::DispatchQueue>& queue() const { return queue_; }

 private:
  LKSCallbackManager();
  using ItemsMessage = void (LKSExtensionCallbackProtocol::*)(std::string_view, const Items&);
  void send(ItemsMessage message, const Items& items);

  const std::string bundleIdentifier_;
  const std::shared_ptr<platform::DispatchQueue> queue_;
  std::mutex mutex_;
  std::shared_ptr<LKSRemoteExtensionContext> context_;
  std::vector<std::weak_ptr<LKSRemoteExtensionContext>> earlier_;  // The latest last.
};

}  // namespace larkspan

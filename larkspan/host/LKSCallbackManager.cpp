#include "larkspan/host/LKSCallbackManager.h"

#include "larkspan/platform/appext/ExtensionMain.h"
#include "larkspan/runtime/Log.h"

namespace larkspan {

LKSCallbackManager& LKSCallbackManager::sharedInstance() {
  static auto* manager = new LKSCallbackManager;
  return *manager;
}

LKSCallbackManager::LKSCallbackManager()
    : bundleIdentifier_(platform::mainBundleIdentifier()),
      queue_(platform::DispatchQueue::makeSerial("corvane.Larkspan.LKSCallbackManager")) {}

std::shared_ptr<LKSRemoteExtensionContext> LKSCallbackManager::context() {
  const std::lock_guard lock(mutex_);
  const auto isOpen = [](const auto& context) {
    return context && context->auxiliaryConnection()->isValid();
  };
  while (!isOpen(context_) && !earlier_.empty()) {
    const auto previous = earlier_.back().lock();
    earlier_.pop_back();
    if (isOpen(previous)) context_ = previous;
  }
  return context_;
}

void LKSCallbackManager::setContext(std::shared_ptr<LKSRemoteExtensionContext> context) {
  const std::lock_guard lock(mutex_);
  std::erase_if(earlier_, [&](const auto& one) { return !context || one.expired(); });
  if (context && context_) earlier_.push_back(context_);
  // The replaced context goes after the lock.
  context_.swap(context);
}

std::shared_ptr<LKSExtensionCallbackProtocol> LKSCallbackManager::hostProxy() {
  const auto current = context();
  if (!current) return nullptr;
  return std::make_shared<LKSExtensionCallbackProxy>(
      current->auxiliaryConnection(),
      [](const platform::Error& error) { LKSLog("Error connecting back to host: %@", error); });
}

void LKSCallbackManager::send(ItemsMessage message, const Items& items) {
  queue_->async([this, message, copy = itemsFromValue(platform::Value(arrayFromItems(items)).deepCopy())] {
    if (const auto host = hostProxy()) ((*host).*message)(bundleIdentifier_, copy);
  });
}

void LKSCallbackManager::sendPartialResourceItems(const Items& items) {
  LKSLog("sendPartialResourceItems: %ld items", items.size());
  send(&LKSExtensionCallbackProtocol::extensionPartialResourceItems, items);
}

void LKSCallbackManager::notifyResourcesDidChange(const Items& items) {
  LKSLog("notifyResourcesDidChange: %ld items", items.size());
  send(&LKSExtensionCallbackProtocol::extensionNotifyResourcesDidChange, items);
}

void LKSCallbackManager::notifyTipsDidChange(const Items& items) {
  LKSLog("notifyTipsDidChange: %ld items", items.size());
  send(&LKSExtensionCallbackProtocol::extensionNotifyTipsDidChange, items);
}

void LKSCallbackManager::notifyTotalSpaceUsedDidChange(int64_t bytes) {
  LKSLog("notifyTotalSpaceUsedDidChange: %lld", bytes);
  queue_->async([this, bytes] {
    if (const auto host = hostProxy()) host->extensionNotifyTotalSpaceUsedDidChange(bundleIdentifier_, bytes);
  });
}

}  // namespace larkspan

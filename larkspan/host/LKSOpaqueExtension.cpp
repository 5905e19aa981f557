#include "larkspan/host/LKSOpaqueExtension.h"

#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/runtime/Log.h"

#include <algorithm>
#include <functional>

namespace larkspan {

using platform::Error;

std::shared_ptr<LKSOpaqueExtension> LKSOpaqueExtension::initWithExtension(
    std::shared_ptr<platform::Extension> extension) {
  return std::shared_ptr<LKSOpaqueExtension>(new LKSOpaqueExtension(std::move(extension)));
}

std::string LKSOpaqueExtension::description() const {
  return platform::format("<%@:%p %@>", className(), static_cast<const void*>(this), underlyingExtension());
}

bool LKSOpaqueExtension::isEqual(const platform::Object& other) const {
  const auto* handle = dynamic_cast<const LKSOpaqueExtension*>(&other);
  return handle &&
         handle->underlyingExtension()->extensionBundle() == underlyingExtension()->extensionBundle();
}

std::size_t LKSOpaqueExtension::hash() const {
  return std::hash<std::string>()(underlyingExtension()->extensionBundle());
}

std::shared_ptr<platform::Extension> LKSOpaqueExtension::underlyingExtension() const {
  const std::lock_guard lock(mutex_);
  return underlyingExtension_;
}

void LKSOpaqueExtension::setUnderlyingExtension(std::shared_ptr<platform::Extension> extension) {
  const std::lock_guard lock(mutex_);
  std::erase_if(earlierExtensions_, [](const auto& earlier) { return earlier.expired(); });
  earlierExtensions_.push_back(underlyingExtension_);
  underlyingExtension_.swap(extension);
}

std::shared_ptr<LKSHostExtensionContext> LKSOpaqueExtension::context() const {
  const std::lock_guard lock(mutex_);
  return context_;
}

void LKSOpaqueExtension::setContext(std::shared_ptr<LKSHostExtensionContext> context) {
  const std::lock_guard lock(mutex_);
  // The replaced context goes after the lock: its end may call back.
  context_.swap(context);
}

void LKSOpaqueExtension::processInputItems(const Items& items, ItemsCompletion completionHandler) {
  const auto self = std::static_pointer_cast<LKSOpaqueExtension>(shared_from_this());
  const auto current = context();
  if (current && current->auxiliaryConnection()->isValid())
    return exchange(current, items, completionHandler);
  unsigned abandonments;
  {
    const std::lock_guard lock(mutex_);
    abandonments = abandonments_;
  }
  const auto underlying = underlyingExtension();
  // The context knows its handle before the extension knows of the request: it may call back at once.
  const auto makeContext = [self](platform::UUID uuid, std::shared_ptr<platform::Connection> connection) {
    auto context = LKSHostExtensionContext::make(uuid, std::move(connection));
    context->setExtension(self);
    return context;
  };
  // The items never travel as the request's input; they go over its connection.
  underlying->beginExtensionRequestWithInputItems(
      {}, makeContext,
      [self, underlying, abandonments, items, completionHandler](const std::optional<platform::UUID>& uuid,
                                                                 const std::optional<Error>& error) {
        if (!uuid) {
          LKSLog("%@ failed to begin extension request to %@: %@", self, underlying, error);
          return completionHandler(std::nullopt, error);
        }
        const auto begun =
            std::static_pointer_cast<LKSHostExtensionContext>(underlying->extensionContextForUUID(*uuid));
        auto kept = begun;  // Then what was kept before, which goes after the lock.
        std::unique_lock lock(self->mutex_);
        if (self->abandonments_ != abandonments) {
          lock.unlock();
          begun->auxiliaryConnection()->invalidate();
          return completionHandler(std::nullopt,
                                   platform::transportError(platform::TransportErrorCode::invalidated,
                                                            "The request was abandoned"));
        }
        // A request to a program that has been replaced meanwhile serves this exchange alone.
        if (self->underlyingExtension_ == underlying) self->context_.swap(kept);
        lock.unlock();
        self->exchange(begun, items, completionHandler);
      });
}

void LKSOpaqueExtension::exchange(const std::shared_ptr<LKSHostExtensionContext>& context, const Items& items,
                                  const ItemsCompletion& completionHandler) {
  const auto& connection = context->auxiliaryConnection();
  const auto weak = std::weak_ptr(std::static_pointer_cast<LKSOpaqueExtension>(shared_from_this()));
  connection->setInvalidationHandler([weak, connection = connection.get()] {
    const auto self = weak.lock();
    // A request that has been replaced ends without the one that replaced it.
    const auto current = self ? self->context() : nullptr;
    if (current && current->auxiliaryConnection().get() == connection) self->setContext(nullptr);
  });
  connection->setInterruptionHandler([weak] {
    if (const auto self = weak.lock()) {
      LKSLog("%@ connection to %@ interrupted", self, self->underlyingExtension());
    }
  });
  const std::string name = description();
  LKSRemoteExtensionProxy proxy(
      connection, [name, underlying = underlyingExtension(), completionHandler](const Error& error) {
        LKSLog("%@ communication error with %@: %@", name, underlying, error);
        completionHandler(std::nullopt, error);
      });
  // The reply holds the context too, which goes on posting what the extension says meanwhile.
  proxy.processInputItems(items, [name, items, context, completionHandler](
                                     std::optional<Items> reply, const std::optional<Error>& error) {
    LKSLog("%@ finished processing %@: result count %ld, error %@", name, items, reply ? reply->size() : 0,
           error);
    completionHandler(std::move(reply), error);
  });
}

void LKSOpaqueExtension::abandon() {
  std::unique_lock lock(mutex_);
  ++abandonments_;
  const auto current = context_;
  auto extensions = earlierExtensions_;
  extensions.push_back(underlyingExtension_);
  lock.unlock();
  // The processes first: letting go of a request might leave its process time to leave by itself.
  for (const auto& weak : extensions) {
    if (const auto extension = weak.lock()) extension->endProcess();
  }
  if (current) current->auxiliaryConnection()->invalidate();
}

std::vector<std::shared_ptr<LKSOpaqueExtension>> mergeHandles(
    const std::vector<std::shared_ptr<LKSOpaqueExtension>>& discovered,
    const std::vector<std::shared_ptr<LKSOpaqueExtension>>& held) {
  std::vector<std::shared_ptr<LKSOpaqueExtension>> merged = discovered;
  for (auto& handle : merged) {
    const auto known =
        std::find_if(held.begin(), held.end(), [&](const auto& one) { return one->isEqual(*handle); });
    if (known == held.end()) continue;
    const auto fresh = handle->underlyingExtension();
    if ((*known)->underlyingExtension()->manifest().exec != fresh->manifest().exec) {
      (*known)->setUnderlyingExtension(fresh);
      (*known)->setContext(nullptr);
    }
    handle = *known;
  }
  return merged;
}

}  // namespace larkspan

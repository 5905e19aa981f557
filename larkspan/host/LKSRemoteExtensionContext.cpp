#include "larkspan/host/LKSRemoteExtensionContext.h"

#include "larkspan/host/LKSHostExtensionContext.h"

namespace larkspan {

using platform::Value;

std::shared_ptr<LKSRemoteExtensionContext> LKSRemoteExtensionContext::make(
    platform::UUID uuid, std::shared_ptr<platform::Connection> connection) {
  std::shared_ptr<LKSRemoteExtensionContext> context(new LKSRemoteExtensionContext(uuid, connection));
  connection->setRemoteInterface(extensionAuxiliaryHostProtocol());
  connection->setExported(extensionAuxiliaryVendorProtocol(), context);
  return context;
}

std::shared_ptr<const platform::Interface> LKSRemoteExtensionContext::extensionAuxiliaryHostProtocol() {
  return LKSHostExtensionContext::extensionAuxiliaryHostProtocol();
}

std::shared_ptr<const platform::Interface> LKSRemoteExtensionContext::extensionAuxiliaryVendorProtocol() {
  return LKSHostExtensionContext::extensionAuxiliaryVendorProtocol();
}

std::shared_ptr<LKSRemoteExtensionContextProtocol> LKSRemoteExtensionContext::storageProvider() const {
  const std::lock_guard lock(mutex_);
  return storageProvider_;
}

void LKSRemoteExtensionContext::setStorageProvider(
    std::shared_ptr<LKSRemoteExtensionContextProtocol> provider) {
  const std::lock_guard lock(mutex_);
  storageProvider_.swap(provider);
}

void LKSRemoteExtensionContext::processInputItems(const Items& items, ItemsCompletion completionHandler) {
  if (const auto provider = storageProvider())
    provider->processInputItems(items, std::move(completionHandler));
}

void LKSRemoteExtensionContext::receive(std::string_view, const std::vector<Value>& arguments,
                                        platform::Reply reply) {
  processInputItems(itemsFromValue(arguments[0]),
                    [reply](std::optional<Items> items, const std::optional<platform::Error>& error) {
                      reply({items ? Value(arrayFromItems(std::move(*items))) : Value(), error});
                    });
}

}  // namespace larkspan

#pragma once

#include "larkspan/host/LKSExtensionProtocols.h"
#include "larkspan/platform/appext/ExtensionContext.h"

#include <memory>
#include <mutex>

namespace larkspan {

/// The extension's end of one request: hands the host's items to the storage provider.
/// Owner:  the request, until the host ends it.
/// Thread: `processInputItems` runs on the connection's delivery queue; the accessors on any.
class LKSRemoteExtensionContext final : public platform::ExtensionContext,
                                        public platform::ExportedObject,
                                        public LKSRemoteExtensionContextProtocol {
 public:
  /// Sets the connection up for this context.
  static std::shared_ptr<LKSRemoteExtensionContext> make(platform::UUID uuid,
                                                         std::shared_ptr<platform::Connection> connection);

  /// Both are those of LKSHostExtensionContext, so that both processes describe the connection alike.
  static std::shared_ptr<const platform::Interface> extensionAuxiliaryHostProtocol();
  static std::shared_ptr<const platform::Interface> extensionAuxiliaryVendorProtocol();

  /// Whoever answers the requests: the LKSExtension, which sets itself when a request begins.
  std::shared_ptr<LKSRemoteExtensionContextProtocol> storageProvider() const;
  void setStorageProvider(std::shared_ptr<LKSRemoteExtensionContextProtocol> provider);

  /// Forwards to the storage provider; without one the host hears that the call was not answered.
  void processInputItems(const Items& items, ItemsCompletion completionHandler) override;

  void receive(std::string_view method, const std::vector<platform::Value>& arguments,
               platform::Reply reply) override;

 private:
  using ExtensionContext::ExtensionContext;

  mutable std::mutex mutex_;
  std::shared_ptr<LKSRemoteExtensionContextProtocol> storageProvider_;
};

}  // namespace larkspan

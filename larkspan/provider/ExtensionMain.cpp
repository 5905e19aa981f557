#include "larkspan/provider/ExtensionMain.h"

#include "larkspan/host/LKSRemoteExtensionContext.h"
#include "larkspan/platform/appext/ExtensionMain.h"

namespace larkspan {

int runStorageExtension(std::shared_ptr<LKSExtension> extension) {
  // Never released: its queue may still run a command while the process exits.
  static const auto* const principal = new std::shared_ptr<LKSExtension>(std::move(extension));
  return platform::runExtension([](platform::UUID uuid, std::shared_ptr<platform::Connection> connection) {
    auto context = LKSRemoteExtensionContext::make(uuid, std::move(connection));
    (*principal)->beginRequestWithExtensionContext(context);
    return context;
  });
}

}  // namespace larkspan

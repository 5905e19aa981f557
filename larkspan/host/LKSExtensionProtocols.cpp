#include "larkspan/host/LKSExtensionProtocols.h"

namespace larkspan {

using platform::Error;
using platform::Value;

void LKSRemoteExtensionProxy::processInputItems(const Items& items, ItemsCompletion completionHandler) {
  connection_->call(kProcessInputItems, {arrayFromItems(items)},
                    [completion = std::move(completionHandler), errorHandler = errorHandler_](
                        const std::vector<Value>& values, const std::optional<Error>& error) {
                      if (error) return errorHandler(*error);
                      completion(values[0].isNone() ? std::nullopt : std::optional(itemsFromValue(values[0])),
                                 values[1].error());
                    });
}

void LKSExtensionCallbackProxy::post(std::string_view method, std::string_view extension, Value argument) {
  const auto error = connection_->post(method, {extension, std::move(argument)});
  if (error) errorHandler_(*error);
}

void LKSExtensionCallbackProxy::extensionPartialResourceItems(std::string_view extension,
                                                              const Items& items) {
  post(kPartialResourceItems, extension, arrayFromItems(items));
}

void LKSExtensionCallbackProxy::extensionNotifyResourcesDidChange(std::string_view extension,
                                                                  const Items& items) {
  post(kNotifyResourcesDidChange, extension, arrayFromItems(items));
}

void LKSExtensionCallbackProxy::extensionNotifyTipsDidChange(std::string_view extension, const Items& items) {
  post(kNotifyTipsDidChange, extension, arrayFromItems(items));
}

void LKSExtensionCallbackProxy::extensionNotifyTotalSpaceUsedDidChange(std::string_view extension,
                                                                       int64_t bytes) {
  post(kNotifyTotalSpaceUsedDidChange, extension, bytes);
}

}  // namespace larkspan

#include "larkspan/host/LKSExtensionProtocols.h"

namespace larkspan {

using platform::Error;
using platform::Value;

void LKSRemoteExtensionProxy::processInputItems(const Items& items, ItemsCompletion completionHandler) {
  const auto parts = std::make_shared<Items>();
  connection_->call(
      kProcessInputItems, {arrayFromItems(items)},
      [completion = std::move(completionHandler), errorHandler = errorHandler_, parts](
          const std::vector<Value>& values, const std::optional<Error>& error) {
        if (error) return errorHandler(*error);
        appendItems(*parts, values[0].array());
        completion(values[0].isNone() ? std::nullopt : std::optional(std::move(*parts)), values[1].error());
      },
      [parts](const platform::Array& members) { appendItems(*parts, members); });
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

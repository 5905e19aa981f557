#pragma once

#include "larkspan/items/MessageItem.h"
#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/ipc/Connection.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

/// The two directions of the connection between a host and an extension, and the callers' ends of both.
namespace larkspan {

/// The outcome of one exchange: the reply's items and the error that came with them; without items, the error
/// that stopped it.
using ItemsCompletion =
    std::function<void(std::optional<Items> items, const std::optional<platform::Error>& error)>;

/// What a host calls in an extension.
class LKSRemoteExtensionContextProtocol {
 public:
  virtual ~LKSRemoteExtensionContextProtocol() = default;
  virtual void processInputItems(const Items& items, ItemsCompletion completionHandler) = 0;
};

/// What an extension calls in its host, without replies. `extension` is the sender's identifier.
class LKSExtensionCallbackProtocol {
 public:
  virtual ~LKSExtensionCallbackProtocol() = default;
  virtual void extensionPartialResourceItems(std::string_view extension, const Items& items) = 0;
  virtual void extensionNotifyResourcesDidChange(std::string_view extension, const Items& items) = 0;
  virtual void extensionNotifyTipsDidChange(std::string_view extension, const Items& items) = 0;
  virtual void extensionNotifyTotalSpaceUsedDidChange(std::string_view extension, int64_t bytes) = 0;
};

/// The methods' names on the wire.
inline constexpr std::string_view kProcessInputItems = "processInputItems:completionHandler:";
inline constexpr std::string_view kPartialResourceItems = "extension:partialResourceItems:";
inline constexpr std::string_view kNotifyResourcesDidChange = "extension:notifyResourcesDidChange:";
inline constexpr std::string_view kNotifyTipsDidChange = "extension:notifyTipsDidChange:";
inline constexpr std::string_view kNotifyTotalSpaceUsedDidChange = "extension:notifyTotalSpaceUsedDidChange:";

/// Calls the extension over a connection.
class LKSRemoteExtensionProxy final : public LKSRemoteExtensionContextProtocol {
 public:
  using ErrorHandler = std::function<void(const platform::Error&)>;

  LKSRemoteExtensionProxy(std::shared_ptr<platform::Connection> connection, ErrorHandler errorHandler)
      : connection_(std::move(connection)), errorHandler_(std::move(errorHandler)) {}

  /// Either the completion or the error handler is called, once.
  void processInputItems(const Items& items, ItemsCompletion completionHandler) override;

 private:
  const std::shared_ptr<platform::Connection> connection_;
  const ErrorHandler errorHandler_;
};

/// Calls the host over a connection. The error handler hears of messages that surely did not arrive.
class LKSExtensionCallbackProxy final : public LKSExtensionCallbackProtocol {
 public:
  using ErrorHandler = std::function<void(const platform::Error&)>;

  LKSExtensionCallbackProxy(std::shared_ptr<platform::Connection> connection, ErrorHandler errorHandler)
      : connection_(std::move(connection)), errorHandler_(std::move(errorHandler)) {}

  void extensionPartialResourceItems(std::string_view extension, const Items& items) override;
  void extensionNotifyResourcesDidChange(std::string_view extension, const Items& items) override;
  void extensionNotifyTipsDidChange(std::string_view extension, const Items& items) override;
  void extensionNotifyTotalSpaceUsedDidChange(std::string_view extension, int64_t bytes) override;

 private:
  void post(std::string_view method, std::string_view extension, platform::Value argument);

  const std::shared_ptr<platform::Connection> connection_;
  const ErrorHandler errorHandler_;
};

}  // namespace larkspan

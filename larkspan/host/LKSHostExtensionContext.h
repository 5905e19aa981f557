#pragma once

#include "larkspan/host/LKSExtensionProtocols.h"
#include "larkspan/platform/appext/ExtensionContext.h"
#include "larkspan/platform/ipc/Interface.h"
#include "larkspan/platform/log/LogBudget.h"

#include <memory>
#include <mutex>

namespace larkspan {

class LKSOpaqueExtension;

// What an extension tells its host is posted on the default notification centre under these names; the object
// is the LKSOpaqueExtension that the request belongs to, or null once that is gone. Except for the partial
// items a host fetches the new state itself.

/// Resource items that an extension found while it still builds its reply.
inline constexpr platform::Key LKSOpaqueExtensionResourceEnumerationProgressNotification =
    "LKSOpaqueExtensionResourceEnumerationProgressNotification";
/// The user-info key of those items: an array of extension items, for `itemsFromValue`.
inline constexpr platform::Key LKSOpaqueExtensionAddedResourcesKey = "LKSOpaqueExtensionAddedResourcesKey";
inline constexpr platform::Key LKSOpaqueExtensionResourcesDidChangeNotification =
    "LKSOpaqueExtensionResourcesDidChangeNotification";
inline constexpr platform::Key LKSOpaqueExtensionRecommendationsDidChangeNotification =
    "LKSOpaqueExtensionRecommendationsDidChangeNotification";
inline constexpr platform::Key LKSOpaqueExtensionBytesUsedDidChangeNotification =
    "LKSOpaqueExtensionBytesUsedDidChangeNotification";
/// For hosts to use among themselves; the library never posts it.
inline constexpr platform::Key LKSInfoStorageUsageReportingBytesUsedDidChangeNotification =
    "LKSInfoStorageUsageReportingBytesUsedDidChangeNotification";

/// The host's end of one request: turns what the extension calls into notifications.
/// Owner:  the handle, and the exchanges under way.
/// Thread: the callbacks run on the connection's delivery queue, and so do the observers: hop to the main
///         queue yourself.
class LKSHostExtensionContext final : public platform::ExtensionContext,
                                      public platform::ExportedObject,
                                      public LKSExtensionCallbackProtocol {
 public:
  /// Sets the connection up for this context.
  static std::shared_ptr<LKSHostExtensionContext> make(platform::UUID uuid,
                                                       std::shared_ptr<platform::Connection> connection);

  /// The classes of message items and what they may hold; the one set that every list of items is decoded
  /// against.
  static const platform::ClassSet& extensionItemClasses();
  /// What the extension may call, built once.
  static const std::shared_ptr<const platform::Interface>& extensionAuxiliaryHostProtocol();
  /// What the host may call, made anew each time.
  static std::shared_ptr<const platform::Interface> extensionAuxiliaryVendorProtocol();
  /// A copy of the host protocol for this context, with the item classes applied again.
  std::shared_ptr<const platform::Interface> derivedExtensionAuxiliaryHostProtocol() const;

  /// The handle that this request belongs to; held weakly.
  std::shared_ptr<LKSOpaqueExtension> extension() const;
  void setExtension(const std::shared_ptr<LKSOpaqueExtension>& extension);

  void extensionPartialResourceItems(std::string_view extension, const Items& items) override;
  void extensionNotifyResourcesDidChange(std::string_view extension, const Items& items) override;
  void extensionNotifyTipsDidChange(std::string_view extension, const Items& items) override;
  void extensionNotifyTotalSpaceUsedDidChange(std::string_view extension, int64_t bytes) override;

  void receive(std::string_view method, const std::vector<platform::Value>& arguments,
               platform::Reply reply) override;

 private:
  LKSHostExtensionContext(platform::UUID uuid, std::shared_ptr<platform::Connection> connection);
  template <typename... Arguments>
  void log(std::string_view sender, const char* format, const Arguments&... arguments);
  void post(platform::Key name, platform::Dictionary userInfo = {});

  mutable std::mutex mutex_;
  std::weak_ptr<LKSOpaqueExtension> extension_;
  platform::LogBudget budget_;  // On the delivery queue only.
};

}  // namespace larkspan

#pragma once

#include "larkspan/host/LKSOpaqueExtension.h"
#include "larkspan/platform/appext/ExtensionMatcher.h"
#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace larkspan {

class LKSExtensionNotifier;

/// The key of the matching attributes under which the extension point stands.
inline constexpr platform::Key kExtensionPointNameKey = "ExtensionPointName";

/// Who hears of the extensions. Both are called on the thread that delivers matching results, never on the
/// main queue.
class LKSExtensionNotifierDelegate {
 public:
  virtual ~LKSExtensionNotifierDelegate() = default;
  /// The complete current set, each in a new handle; see `mergeHandles`.
  virtual void extensionNotifierDidGetExtensions(
      LKSExtensionNotifier& notifier, const std::vector<std::shared_ptr<LKSOpaqueExtension>>& extensions) = 0;
  virtual void extensionNotifierDidError(LKSExtensionNotifier&, const platform::Error&) {}
};

/// Finds the storage extensions installed, and tells its delegate whenever the set changes.
/// Owner:   std::shared_ptr; the delegate is held weakly. Matching ends with the last reference.
/// Thread:  any.
/// Failure: an error goes to the delegate; matching is not restarted by itself.
class LKSExtensionNotifier : public std::enable_shared_from_this<LKSExtensionNotifier> {
 public:
  static std::shared_ptr<LKSExtensionNotifier> init();
  ~LKSExtensionNotifier();
  LKSExtensionNotifier(const LKSExtensionNotifier&) = delete;
  LKSExtensionNotifier& operator=(const LKSExtensionNotifier&) = delete;

  /// Begins matching; a second start is harmless. Returns at once.
  void start();
  /// Ends matching; it may be started again. Returns at once.
  void stop();

  std::shared_ptr<LKSExtensionNotifierDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<LKSExtensionNotifierDelegate>& delegate);

  /// {kExtensionPointNameKey: "corvane.larkspan"}.
  platform::Dictionary extensionMatchingAtrributes() const;
  const std::shared_ptr<platform::DispatchQueue>& serialAccessQueue() const { return serialAccessQueue_; }
  /// What matching runs under; null while it does not.
  std::shared_ptr<platform::ExtensionMatcher> matchingContext() const;

  // The steps of the above, for hosts that schedule them themselves.
  void beginMatchingExtensions();
  void stopMatchingExtensions();
  void handleMatchingResponse(const std::optional<std::vector<platform::Manifest>>& extensions,
                              const std::optional<platform::Error>& error);
  void handleMatchingExtensions(const std::vector<platform::Manifest>& extensions);
  void handleError(const platform::Error& error);

 private:
  LKSExtensionNotifier();

  const std::shared_ptr<platform::DispatchQueue> serialAccessQueue_;
  mutable std::mutex mutex_;
  std::weak_ptr<LKSExtensionNotifierDelegate> delegate_;
  std::shared_ptr<platform::ExtensionMatcher> matchingContext_;
};

}  // namespace larkspan

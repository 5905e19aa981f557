#pragma once

#include "extensions/caches/CacheDirectory.h"
#include "larkspan/platform/base/Clock.h"
#include "larkspan/provider/LKSExtension.h"

namespace larkspan::caches {

/// Shows what applications keep in the user's cache directory, and empties it.
/// A walk serves all questions of the next ten seconds: hosts ask for information, resources and tips
/// together. What this extension deletes itself is seen at once.
class CachesExtension final : public LKSExtension {
 public:
  std::vector<std::string> categories() override;
  std::string localizedStringForCategory(const std::string& identifier) override;
  std::optional<std::string> localizedHeaderMessage() override;
  std::vector<std::string> managedPaths() override;
  bool showItemPaths() override { return true; }
  int64_t totalSpaceUsed() override;

  std::vector<LKSResource> resourceItems() override;
  std::optional<platform::Error> deleteResourceItems(const std::vector<LKSResource>& items) override;

  std::vector<LKSTipMessage> tipItems() override;
  std::optional<LKSConfirmPanel> confirmationTextForTipAction(
      const std::optional<LKSTipMessage>& tip) override;
  std::optional<platform::Error> performTipAction(const LKSTipMessage& tip) override;

 private:
  const std::vector<CacheEntry>& entries(const std::function<void(const CacheEntry&)>& found = {});
  std::optional<platform::Error> perform(const platform::Value& reference);
  void tellChange();

  // Only the extension's queue calls, so nothing is locked.
  const CacheDirectory directory_ = CacheDirectory::ofUser();
  std::vector<CacheEntry> entries_;
  std::optional<platform::MonotonicTime> walkedAt_;
};

}  // namespace larkspan::caches

#pragma once

#include "extensions/trash/TrashFolder.h"
#include "larkspan/fs/LKSDirectoryObserver.h"
#include "larkspan/platform/base/Clock.h"
#include "larkspan/platform/dispatch/IoSource.h"
#include "larkspan/provider/LKSExtension.h"

#include <atomic>
#include <chrono>

namespace larkspan::trash {

/// Shows what lies in the user's trash folders, on all local volumes, and deletes it for good.
///
/// What is listed says what it was when it was listed: an entry carries its identity as its reference, the
/// summary and the tip those of all that they speak of. So nothing goes that was trashed after somebody was
/// asked. Hosts hear when something is trashed or restored, and when a volume comes or goes. A walk serves all
/// questions of the next ten seconds, unless a change of an info file or a look of its own makes it walk again
/// meanwhile.
///
/// A trashing starts with the info file, and no event tells that it is over. So it looks again while walks
/// differ, or an info file of the last hour has no entry: after a second, then after twice the time each, a
/// minute at most. What stalls between two looks and then goes on is found by the first question after the ten
/// seconds.
class TrashExtension final : public LKSExtension {
 public:
  std::vector<std::string> categories() override;
  std::string localizedStringForCategory(const std::string& identifier) override;
  std::optional<std::string> localizedHeaderMessage() override;
  std::vector<std::string> managedPaths() override;
  bool showItemPaths() override { return true; }
  bool showsSummaryPanel() override { return true; }
  int64_t totalSpaceUsed() override;

  /// The summary, then the entries, the latest first. An entry's modification date is when it was deleted,
  /// its secondary title where it was.
  std::vector<LKSResource> resourceItems() override;
  std::optional<LKSConfirmPanel> confirmationTextForDelete(const std::vector<LKSResource>& items) override;
  std::optional<platform::Error> deleteResourceItems(const std::vector<LKSResource>& items) override;
  std::optional<LKSConfirmPanel> confirmationTextForSummaryAction(
      const std::optional<LKSSummaryResource>& summary) override;
  std::optional<platform::Error> performSummaryAction(
      const std::optional<LKSSummaryResource>& summary) override;
  std::vector<LKSTipMessage> tipItems() override;
  std::optional<LKSConfirmPanel> confirmationTextForTipAction(
      const std::optional<LKSTipMessage>& tip) override;
  std::optional<platform::Error> performTipAction(const LKSTipMessage& tip) override;

 private:
  static constexpr std::chrono::seconds kWalkServes{10}, kFirstLook{1}, kSlowestLook{60};
  using Entries = std::vector<TrashEntry>;
  /// Of all folders, the latest first, as they were found less than `age` ago.
  Entries entries(std::chrono::nanoseconds age = kWalkServes);
  /// Those that the reference of a summary or a tip speaks of. Nothing if it is none.
  std::optional<Entries> promised(const platform::Value& reference);
  std::optional<platform::Error> remove(const Entries& entries);
  void beginObserving();
  void observe();
  /// Walks, and tells hosts what was found if that is not what they know.
  void tellNews();

  std::mutex mutex_;
  Entries entries_;
  std::optional<platform::MonotonicTime> walkedAt_;
  std::chrono::seconds nextLook_ = kFirstLook;
  std::atomic<bool> looksAgain_ = false;  ///< A look is due after some time.
  std::atomic<bool> hasNews_ = false;     ///< Hosts were not told what was found last.

  const std::shared_ptr<platform::DispatchQueue> changes_ =
      platform::DispatchQueue::makeSerial("corvane.larkspan.trash", platform::QualityOfService::utility);
  std::once_flag isObserving_;
  std::shared_ptr<LKSDirectoryObserver> observer_;  // The queue's.
  platform::Descriptor mounts_;
  std::shared_ptr<platform::IoSource> mountSource_;
};

}  // namespace larkspan::trash

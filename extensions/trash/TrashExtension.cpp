#include "extensions/trash/TrashExtension.h"

#include "extensions/trash/Texts.h"
#include "larkspan/host/LKSCallbackManager.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Saturating.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/epoll.h>

namespace larkspan::trash {

using platform::Date;
using platform::Error;
using platform::format;

namespace {

constexpr int64_t kOldAfterSeconds = int64_t{30} * 24 * 60 * 60;
constexpr double kObservingLatency = 1.0;
constexpr const char* kOld = "old";
constexpr const char* kRecent = "recent";

bool isOld(const TrashEntry& entry) { return entry.deleted.seconds < Date::now().seconds - kOldAfterSeconds; }

int64_t bytesOf(const std::vector<TrashEntry>& entries) {
  int64_t total = 0;
  for (const TrashEntry& entry : entries) total = platform::saturatingSum(total, entry.bytes);
  return total;
}

/// What tells them from all that comes later. No time would: an info file's may lie ahead of the clock, or
/// long before its entry came.
platform::Value referenceTo(const std::vector<TrashEntry>& entries) {
  std::vector<platform::Value> identities;
  for (const TrashEntry& entry : entries) identities.emplace_back(entry.identity);
  return platform::Array(std::move(identities));
}

LKSResource resourceFor(const TrashEntry& entry) {
  auto resource = LKSResource::initLKSResourceItemWithFileURL(entry.url).value();
  resource.setLks_name(entry.originalName);
  resource.setLks_size(entry.bytes);
  resource.setLks_dateModified(entry.deleted);
  resource.setLks_category(isOld(entry) ? kOld : kRecent);
  resource.setLks_reference(entry.identity);
  if (!entry.originalPath.empty()) resource.setUserInfoObject(entry.originalPath, kSecondaryTitleKey);
  return resource;
}

LKSSummaryResource summaryOf(const std::vector<TrashEntry>& entries) {
  auto summary = LKSSummaryResource::initLKSSummaryResource();
  const std::string size = LKSExtension::localizedFileSize(bytesOf(entries));
  summary.setLks_summaryTitle(text("SUMMARY_TITLE"));
  summary.setLks_summaryMessage(entries.size() == 1 ? format(text("SUMMARY_MESSAGE_1"), size)
                                                    : format(text("SUMMARY_MESSAGE"), entries.size(), size));
  summary.setLks_summaryFooter(text("HEADER"));
  summary.setLks_summaryButton(text("EMPTY"));
  summary.setLks_isDestructive(true);
  summary.setLks_reference(referenceTo(entries));
  return summary;
}

LKSConfirmPanel panelWith(const std::string& title, const std::string& message, const char* action) {
  LKSConfirmPanel panel;
  panel.setLks_confirmTitle(title);
  panel.setLks_confirmMessage(message);
  panel.setLks_confirmOKButtonTitle(text(action));
  panel.setLks_confirmCancelButtonTitle(text("CANCEL"));
  return panel;
}

LKSConfirmPanel deletePanel(const std::string& firstName, std::size_t count, int64_t bytes) {
  return panelWith(
      count == 1 ? format(text("DELETE_TITLE_1"), firstName) : format(text("DELETE_TITLE"), count),
      format(text("DELETE_MESSAGE"), LKSExtension::localizedFileSize(bytes)), "DELETE");
}

Error failure(const std::string& message) { return Error(kTrashErrorDomain, 1, message); }

/// Tries all, and reports one error for those that failed.
template <typename T, typename Remove>
std::optional<Error> forEach(const std::vector<T>& items, Remove remove) {
  std::size_t failed = 0;
  std::string cause;
  for (const T& item : items) {
    const std::optional<Error> error = remove(item);
    if (error && failed++ == 0) cause = error->localizedDescription();
  }
  if (failed == 0) return std::nullopt;
  return failure(format(text("FAILED"), failed, items.size(), cause));
}

}  // namespace

void TrashExtension::observe() {
  observer_ = LKSDirectoryObserver::scheduledObserverForPaths(
      TrashFolder::watchedPaths(), changes_, platform::kEventStreamFileEvents, kObservingLatency, false,
      [this](const std::vector<std::string>&) { tellNews(); });
}

void TrashExtension::tellNews() {
  entries(std::chrono::seconds(0));
  if (!hasNews_.exchange(false)) return;
  LKSCallbackManager& host = LKSCallbackManager::sharedInstance();
  host.notifyTotalSpaceUsedDidChange(totalSpaceUsed());
  const auto resources = resourceItems();
  host.notifyResourcesDidChange(Items(resources.begin(), resources.end()));
  const auto tips = tipItems();
  host.notifyTipsDidChange(Items(tips.begin(), tips.end()));
}

void TrashExtension::beginObserving() {
  changes_->sync([this] { observe(); });
  // The kernel tells of mounts by an exceptional condition of this file (proc_pid_mountinfo(5)).
  mounts_.reset(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  if (!mounts_) return;
  mountSource_ = platform::IoSource::make(mounts_.get(), EPOLLPRI, [this](uint32_t) {
    changes_->async([this] {
      observe();
      hasNews_ = true;
      tellNews();
    });
  });
}

TrashExtension::Entries TrashExtension::entries(std::chrono::nanoseconds age) {
  // Before the first look, so that nothing happens in between.
  std::call_once(isObserving_, [this] { beginObserving(); });
  const std::lock_guard lock(mutex_);
  const auto& clock = platform::Clock::current();
  if (walkedAt_ && clock.monotonicNow() - *walkedAt_ < age) return entries_;
  Entries found;
  bool isAtRest = true;
  for (const TrashFolder& folder : TrashFolder::all()) {
    if (folder.awaitsEntry()) isAtRest = false;
    for (TrashEntry& entry : folder.entries()) found.push_back(std::move(entry));
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const TrashEntry& a, const TrashEntry& b) { return a.deleted > b.deleted; });
  if (walkedAt_ && found != entries_) {
    hasNews_ = true;
    isAtRest = false;
  }
  entries_ = std::move(found);
  walkedAt_ = clock.monotonicNow();
  if (isAtRest) {
    nextLook_ = kFirstLook;
  } else if (!looksAgain_.exchange(true)) {
    changes_->after(nextLook_, [this] {
      looksAgain_ = false;
      tellNews();
    });
    nextLook_ = std::min(2 * nextLook_, kSlowestLook);
  }
  return entries_;
}

std::optional<TrashExtension::Entries> TrashExtension::promised(const platform::Value& reference) {
  if (reference.kind() != platform::Value::Kind::array) return std::nullopt;
  const platform::Array identities = reference.array();
  const platform::Set listed({identities.begin(), identities.end()});
  Entries result = entries();
  std::erase_if(result, [&](const TrashEntry& entry) { return !listed.contains(entry.identity); });
  return result;
}

std::vector<std::string> TrashExtension::categories() { return {kOld, kRecent}; }

std::string TrashExtension::localizedStringForCategory(const std::string& identifier) {
  if (identifier == kOld) return text("CATEGORY_OLD");
  return identifier == kRecent ? text("CATEGORY_RECENT") : identifier;
}

std::optional<std::string> TrashExtension::localizedHeaderMessage() { return text("HEADER"); }

std::vector<std::string> TrashExtension::managedPaths() {
  std::vector<std::string> paths;
  for (const TrashFolder& folder : TrashFolder::all()) paths.push_back(folder.path());
  return paths;
}

int64_t TrashExtension::totalSpaceUsed() { return bytesOf(entries()); }

std::vector<LKSResource> TrashExtension::resourceItems() {
  std::vector<LKSResource> result;
  const Entries all = entries();
  if (!all.empty()) result.push_back(summaryOf(all));
  for (const TrashEntry& entry : all) result.push_back(resourceFor(entry));
  return result;
}

std::optional<LKSConfirmPanel> TrashExtension::confirmationTextForDelete(
    const std::vector<LKSResource>& items) {
  if (items.empty()) return std::nullopt;
  int64_t bytes = 0;
  for (const LKSResource& item : items) {
    bytes = platform::saturatingSum(bytes, std::max<int64_t>(item.lks_size(), 0));
  }
  return deletePanel(items[0].lks_name().value_or(""), items.size(), bytes);
}

std::optional<Error> TrashExtension::deleteResourceItems(const std::vector<LKSResource>& items) {
  const auto folders = TrashFolder::all();
  const auto error = forEach(items, [&](const LKSResource& item) -> std::optional<Error> {
    const auto url = item.lks_URL();
    for (const TrashFolder& folder : folders) {
      const auto entry = url ? folder.find(*url) : std::nullopt;
      if (!entry) continue;
      const auto reference = item.lks_reference();
      if (reference.text() != entry->identity) return failure(format(text("CHANGED"), entry->originalName));
      return folder.remove(*entry);
    }
    return failure(format(text("NOT_IN_TRASH"), url ? url->path() : item.lks_name().value_or("")));
  });
  hasNews_ = true;
  tellNews();
  return error;
}

std::optional<Error> TrashExtension::remove(const Entries& entries) {
  const auto folders = TrashFolder::all();
  const auto error = forEach(entries, [&](const TrashEntry& entry) -> std::optional<Error> {
    for (const TrashFolder& folder : folders) {
      const auto now = folder.find(entry.url);
      if (now && now->identity == entry.identity) return folder.remove(*now);
    }
    return std::nullopt;  // Somebody was first.
  });
  for (const TrashFolder& folder : folders) folder.removeStrayInfo();
  hasNews_ = true;
  tellNews();
  return error;
}

std::optional<LKSConfirmPanel> TrashExtension::confirmationTextForSummaryAction(
    const std::optional<LKSSummaryResource>& summary) {
  if (!summary) return std::nullopt;
  const auto all = promised(summary->lks_reference());
  if (!all || all->empty()) return std::nullopt;
  const std::string size = localizedFileSize(bytesOf(*all));
  return panelWith(text("EMPTY_TITLE"),
                   all->size() == 1 ? format(text("EMPTY_MESSAGE_1"), all->front().originalName, size)
                                    : format(text("EMPTY_MESSAGE"), all->size(), size),
                   "EMPTY");
}

std::optional<Error> TrashExtension::performSummaryAction(const std::optional<LKSSummaryResource>& summary) {
  const auto all = promised(summary ? summary->lks_reference() : platform::Value());
  return all ? remove(*all) : failure(text("NO_REFERENCE"));
}

std::vector<LKSTipMessage> TrashExtension::tipItems() {
  Entries old = entries();
  std::erase_if(old, [](const TrashEntry& entry) { return !isOld(entry); });
  if (old.empty()) return {};
  auto tip = LKSTipMessage::initLKSTipWithTitle(text("TIP_TITLE")).value();
  const std::string size = localizedFileSize(bytesOf(old));
  tip.setLks_secondaryTitle(old.size() == 1 ? format(text("TIP_SECONDARY_1"), size)
                                            : format(text("TIP_SECONDARY"), old.size(), size));
  tip.setLks_infoText(text("TIP_INFO"));
  tip.setLks_actionButtonTitle(text("DELETE"));
  tip.setLks_size(bytesOf(old));
  tip.setLks_reference(referenceTo(old));
  return {tip};
}

std::optional<LKSConfirmPanel> TrashExtension::confirmationTextForTipAction(
    const std::optional<LKSTipMessage>& tip) {
  if (!tip) return std::nullopt;
  const auto old = promised(tip->lks_reference());
  if (!old || old->empty()) return std::nullopt;
  return deletePanel(old->front().originalName, old->size(), bytesOf(*old));
}

std::optional<Error> TrashExtension::performTipAction(const LKSTipMessage& tip) {
  const auto old = promised(tip.lks_reference());
  return old ? remove(*old) : failure(text("NO_REFERENCE"));
}

}  // namespace larkspan::trash

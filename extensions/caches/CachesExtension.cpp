#include "extensions/caches/CachesExtension.h"

#include "extensions/caches/PartialItems.h"
#include "extensions/caches/Thumbnails.h"
#include "larkspan/host/LKSCallbackManager.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Saturating.h"

#include <algorithm>

namespace larkspan::caches {

using platform::Error;
using platform::format;
using platform::URL;

namespace {

constexpr std::chrono::seconds kWalkServes{10};
/// What is smaller is no recommendation.
constexpr int64_t kLargeCache = int64_t{1} << 30;
constexpr int64_t kManyThumbnails = 10 << 20;

struct Category {
  const char* identifier;
  const char* name;
};

const Category& categoryOf(CacheKind kind) {
  static constexpr Category kCategories[] = {
      {"applications", "Application caches"},
      {"tagged", "Tagged caches: made to be deleted"},
      {"thumbnails", "Thumbnails"},
  };
  return kCategories[static_cast<std::size_t>(kind)];
}
constexpr CacheKind kKinds[] = {CacheKind::tagged, CacheKind::thumbnails, CacheKind::application};

LKSResource resourceFor(const CacheEntry& entry) {
  auto resource = LKSResource::initLKSResourceItemWithFileURL(entry.url).value();
  resource.setLks_size(entry.bytes);
  resource.setLks_category(categoryOf(entry.kind).identifier);
  return resource;
}

bool isLarge(const CacheEntry& entry) { return entry.isFolder && entry.bytes >= kLargeCache; }

/// The date that a tip on thumbnails carries, but never a later one than now is right: tips come back from
/// outside.
platform::Date thumbnailLimit(platform::Date promised) { return std::min(promised, thumbnailAgeLimit()); }

Error failure(const std::string& text) { return Error(kCachesErrorDomain, 1, text); }

/// A tip's reference says what to do: a date, to delete the thumbnails not used since; a URL, to empty that
/// folder.
LKSTipMessage tipWith(const std::string& title, const std::string& secondary, const char* action,
                      const char* information, int64_t bytes, std::string_view reference) {
  auto tip = LKSTipMessage::initLKSTipWithTitle(title).value();
  tip.setLks_secondaryTitle(secondary);
  tip.setLks_actionButtonTitle(action);
  tip.setLks_infoText(information);
  tip.setLks_size(bytes);
  tip.setLks_reference(reference);
  return tip;
}

LKSConfirmPanel panelWith(const std::string& title, const std::string& message, const char* action) {
  LKSConfirmPanel panel;
  panel.setLks_confirmTitle(title);
  panel.setLks_confirmMessage(message);
  panel.setLks_confirmOKButtonTitle(action);
  panel.setLks_confirmCancelButtonTitle("Cancel");
  return panel;
}

template <typename View>
Items itemsOf(const std::vector<View>& views) {
  return Items(views.begin(), views.end());
}

}  // namespace

std::vector<std::string> CachesExtension::categories() {
  std::vector<std::string> result;
  for (const CacheKind kind : kKinds) result.push_back(categoryOf(kind).identifier);
  return result;
}

std::string CachesExtension::localizedStringForCategory(const std::string& identifier) {
  for (const CacheKind kind : kKinds) {
    if (identifier == categoryOf(kind).identifier) return categoryOf(kind).name;
  }
  return identifier;
}

std::optional<std::string> CachesExtension::localizedHeaderMessage() {
  return "Applications keep here what they can make or download again. Quit an application before you empty "
         "its cache.";
}

std::vector<std::string> CachesExtension::managedPaths() {
  if (directory_.path().empty()) return {};
  return {directory_.path()};
}

const std::vector<CacheEntry>& CachesExtension::entries(const std::function<void(const CacheEntry&)>& found) {
  const auto& clock = platform::Clock::current();
  if (!walkedAt_ || clock.monotonicNow() - *walkedAt_ > kWalkServes) {
    entries_ = directory_.entries(found);
    walkedAt_ = clock.monotonicNow();
  }
  return entries_;
}

int64_t CachesExtension::totalSpaceUsed() {
  int64_t total = 0;
  for (const CacheEntry& entry : entries()) total = platform::saturatingSum(total, entry.bytes);
  return total;
}

std::vector<LKSResource> CachesExtension::resourceItems() {
  PartialItems partial;
  std::vector<LKSResource> result;
  for (const CacheEntry& entry : entries([&](const CacheEntry& found) { partial.add(resourceFor(found)); })) {
    result.push_back(resourceFor(entry));
  }
  return result;
}

std::optional<Error> CachesExtension::deleteResourceItems(const std::vector<LKSResource>& items) {
  int64_t failed = 0;
  std::string cause;
  for (const LKSResource& item : items) {
    const auto url = item.lks_URL();
    const auto error = url ? directory_.empty(*url) : failure("a resource has no URL");
    if (error && failed++ == 0) cause = error->localizedDescription();
  }
  walkedAt_.reset();
  tellChange();
  if (!failed) return std::nullopt;
  // Who asked hears of new resources only after a success, and some of them may be gone.
  LKSCallbackManager::sharedInstance().notifyResourcesDidChange(itemsOf(resourceItems()));
  return failure(format("%lld of %lld caches could not be emptied: %@", failed, items.size(), cause));
}

std::vector<LKSTipMessage> CachesExtension::tipItems() {
  std::vector<LKSTipMessage> tips;
  const auto limit = thumbnailAgeLimit();
  const auto old = oldThumbnails(directory_, limit);
  if (old.bytes >= kManyThumbnails) {
    tips.push_back(tipWith(
        "Delete old thumbnails",
        format("%@ in %@ that nothing has used for %lld days", localizedFileSize(old.bytes),
               old.count == 1 ? "one preview" : format("%lld previews", old.count), kThumbnailAgeInDays),
        "Delete", "A preview is made again when its file is next shown.", old.bytes, limit.description()));
  }
  for (const CacheEntry& entry : entries()) {
    if (!isLarge(entry)) continue;
    tips.push_back(
        tipWith(format("Empty the cache “%@”", entry.name),
                format("It has grown to %@", localizedFileSize(entry.bytes)), "Empty",
                "The application makes or downloads again what it needs, and may be slower until then.",
                entry.bytes, entry.url.absoluteString()));
  }
  return tips;
}

std::optional<LKSConfirmPanel> CachesExtension::confirmationTextForTipAction(
    const std::optional<LKSTipMessage>& tip) {
  if (!tip) return std::nullopt;
  const auto reference = tip->lks_reference();
  if (const auto date = platform::Date::parse(reference.text())) {
    const auto old = oldThumbnails(directory_, thumbnailLimit(*date));
    return panelWith(
        old.count == 1 ? "Delete one old thumbnail?" : format("Delete %lld old thumbnails?", old.count),
        format("This frees %@. A preview is made again when its file is next shown.",
               localizedFileSize(old.bytes)),
        "Delete");
  }
  const auto url = URL::parse(reference.text());
  const auto entry = url ? directory_.entry(*url) : std::nullopt;
  if (!entry) return std::nullopt;
  return panelWith(
      format("Empty the cache “%@”?", entry->name),
      format("This frees %@. Quit the application first; it makes or downloads again what it needs.",
             localizedFileSize(entry->bytes)),
      "Empty");
}

std::optional<Error> CachesExtension::performTipAction(const LKSTipMessage& tip) {
  const auto error = perform(tip.lks_reference());
  walkedAt_.reset();
  tellChange();
  LKSCallbackManager::sharedInstance().notifyResourcesDidChange(itemsOf(resourceItems()));
  return error;
}

std::optional<Error> CachesExtension::perform(const platform::Value& reference) {
  if (const auto date = platform::Date::parse(reference.text()))
    return removeOldThumbnails(directory_, thumbnailLimit(*date)).error;
  const auto url = URL::parse(reference.text());
  if (!url) return failure("This recommendation is none of this extension's.");
  // What was offered for its size and has shrunk since is not to go.
  const auto entry = directory_.entry(*url);
  if (!entry || !isLarge(*entry))
    return failure(format("“%@” is no large cache any more.", url->lastPathComponent()));
  return directory_.empty(*url);
}

void CachesExtension::tellChange() {
  auto& host = LKSCallbackManager::sharedInstance();
  host.notifyTotalSpaceUsedDidChange(totalSpaceUsed());
  host.notifyTipsDidChange(itemsOf(tipItems()));
}

}  // namespace larkspan::caches

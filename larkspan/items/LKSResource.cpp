#include "larkspan/items/LKSResource.h"

#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/desktop/LastUsed.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"
#include "larkspan/platform/files/DeepDelete.h"
#include "larkspan/platform/files/FolderSize.h"
#include "larkspan/platform/files/ResourceValues.h"
#include "larkspan/platform/log/Console.h"
#include "larkspan/platform/process/Identity.h"
#include "larkspan/runtime/Log.h"

#include <stdexcept>

namespace larkspan {

using platform::Date;
using platform::Dictionary;
using platform::ResourceValues;

namespace {

/// "~" and "~NAME" of a user with a home expanded, empty and "." components removed, ".." resolved against the
/// component before it in an absolute path.
std::string standardized(std::string_view path) {
  std::string expanded(path);
  if (path.starts_with('~')) {
    const std::string user(path.substr(1, path.find('/') - 1));
    const std::string home =
        user.empty() ? platform::Identity::current().homeFolder : platform::homeFolderOf(user);
    // "~/x" of nobody must not become "/x".
    if (!home.empty()) expanded = home + expanded.substr(1 + user.size());
  }
  const bool absolute = expanded.starts_with('/');
  std::vector<std::string_view> components;
  for (std::size_t at = 0; at < expanded.size();) {
    const std::size_t end = std::min(expanded.find('/', at), expanded.size());
    const std::string_view component = std::string_view(expanded).substr(at, end - at);
    at = end + 1;
    if (component.empty() || component == ".") continue;
    if (component == ".." && absolute) {
      if (!components.empty()) components.pop_back();
      continue;
    }
    components.push_back(component);
  }
  std::string result = absolute ? "/" : "";
  for (const std::string_view component : components) {
    if (!result.empty() && result.back() != '/') result += '/';
    result += component;
  }
  return result;
}

int64_t sizeOfFolder(const platform::URL& url) {
  const auto result = platform::sizeFolder(url);
  if (result.status == 0) return result.bytes;
  LKSLog("Error %ld sizing path: %@", static_cast<long>(result.status), url.path());
  return 0;
}

void deleteInBackground(std::vector<platform::URL> urls) {
  platform::DispatchQueue::global(platform::QualityOfService::utility)->async([urls = std::move(urls)] {
    const auto error = platform::deepDelete(urls).error;
    if (error && error->code() != static_cast<int64_t>(platform::DeletionErrorCode::cancelled)) {
      platform::consoleLog(platform::format("Failed to remove items: %@", error->localizedDescription()));
    }
  });
}

}  // namespace

LKSResource LKSResource::initLKSResourceItemWithName(OptionalText name) {
  auto userInfo = Dictionary::withCapacity(10);
  userInfo.set(kNameKey, name.value_or(""));
  userInfo.set(kItemKindKey, kResourceKind);
  MessageItem item;
  item.setUserInfo(std::move(userInfo));
  return LKSResource(std::move(item));
}

std::optional<LKSResource> LKSResource::initLKSResourceItemWithFileURL(const platform::URL& url) {
  if (!url.isFileURL() || url.path().empty()) return std::nullopt;
  auto userInfo = Dictionary::withCapacity(10);
  userInfo.set(kURLKey, url);
  ResourceValues values;
  // A file that cannot be read becomes an item of its URL and nothing else.
  if (!platform::FileFacts::current().read(url, values)) {
    userInfo.set(kItemKindKey, kResourceKind);
    userInfo.set(kNameKey, values.localizedName.empty() ? url.lastPathComponent() : values.localizedName);
    if (values.creationDate) userInfo.set(kDateCreatedKey, *values.creationDate);
    if (values.contentModificationDate) userInfo.set(kDateModifiedKey, *values.contentModificationDate);
    if (const auto opened = lks_lastOpenedDateForURL(url)) userInfo.set(kDateOpenedKey, *opened);
    if (values.totalAllocatedSize) userInfo.set(kSizeKey, *values.totalAllocatedSize);
    userInfo.set(kRevealableKey, true);
    userInfo.set(kDeletableKey, true);
  }
  MessageItem item;
  item.setUserInfo(std::move(userInfo));
  return LKSResource(std::move(item));
}

std::optional<LKSResource> LKSResource::initLKSResourceWithFileAtPath(std::string_view path) {
  if (path.empty()) return std::nullopt;
  return initLKSResourceItemWithFileURL(platform::URL::file(standardized(path)));
}

std::optional<std::string> LKSResource::lks_revealButtonTitle() const {
  auto title = stringFor(kRevealButtonTitleKey);
  if (title && title->empty()) title.reset();
  return title;
}

bool LKSResource::isEqualToLKSExtension(const MessageItem& other) const {
  const auto mine = lks_URL();
  const auto theirs = LKSResource(other).lks_URL();
  if (mine && theirs && mine->isFileURL() && theirs->isFileURL()) return mine->path() == theirs->path();
  return *this == other;
}

std::optional<Date> LKSResource::lks_lastOpenedDateForURL(const platform::URL& url) {
  ResourceValues values;
  platform::FileFacts::current().read(url, values);
  if (values.isDirectory) {
    if (const auto used = platform::LastUsed::current().lastUsedDate(url)) return used;
  }
  return values.contentModificationDate ? values.contentModificationDate : values.creationDate;
}

int64_t LKSResource::lks_calculateSizeOfItemAtURL(const platform::URL& url) {
  ResourceValues values;
  platform::FileFacts::current().read(url, values);
  return values.isDirectory ? sizeOfFolder(url) : values.totalAllocatedSize.value_or(0);
}

int64_t LKSResource::lks_calculateSizeOfFolderAtPath(std::string_view path) {
  return sizeOfFolder(platform::URL::file(path, true));
}

void LKSResource::lks_deleteItemAtURL(const platform::URL& url) { deleteInBackground({url}); }

void LKSResource::lks_deleteItemsAtURLs(std::vector<platform::URL> urls) {
  deleteInBackground(std::move(urls));
}

void LKSResource::lks_deleteResourceItems(const std::vector<LKSResource>& items) {
  std::vector<platform::URL> urls;
  for (const LKSResource& item : items) {
    auto url = item.lks_URL();
    if (!url) throw std::invalid_argument("A resource item without a URL cannot be deleted.");
    urls.push_back(std::move(*url));
  }
  deleteInBackground(std::move(urls));
}

void LKSResource::lks_deleteResourceItem() const { lks_deleteResourceItems({*this}); }

}  // namespace larkspan

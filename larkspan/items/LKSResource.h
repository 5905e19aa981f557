#pragma once

#include "larkspan/items/MessageItem.h"

#include <cstdint>
#include <vector>

namespace larkspan {

/// One thing that an extension lists and that the host may show, reveal or delete: a file, a folder, or an
/// entry that the extension makes up. Its flags are stored as true or false. The file operations at the end
/// need no item; extensions call them while they build a reply.
class LKSResource : public MessageItem {
 public:
  LKSResource(MessageItem item) : MessageItem(std::move(item)) {}
  static std::optional<MessageItem> initWithLKSName(OptionalText) = delete;
  static std::optional<MessageItem> initWithName(OptionalText) = delete;

  /// A resource of that name, the empty one when none is given.
  static LKSResource initLKSResourceItemWithName(OptionalText name);
  /// A revealable, deletable resource with the file's name, dates and allocated size; for a folder that is
  /// the size of its own entry, not of what it holds. Nothing for a URL that is no file URL or has no path.
  /// When the file cannot be read the item carries the URL alone.
  static std::optional<LKSResource> initLKSResourceItemWithFileURL(const platform::URL& url);
  /// The same for a path, which is first standardised: "~" and "~NAME" expanded to the home of the user or of
  /// that one, where there is such a home; "//" and "." removed, ".." resolved.
  static std::optional<LKSResource> initLKSResourceWithFileAtPath(std::string_view path);
  static std::optional<LKSResource> initLKSResourceItemWithFilePath(std::string_view path) {
    return initLKSResourceWithFileAtPath(path);
  }

  std::optional<platform::URL> lks_URL() const { return urlFor(kURLKey); }
  void setLks_URL(std::optional<platform::URL> url) { setUserInfoObject(std::move(url), kURLKey); }
  std::optional<std::string> lks_versionString() const { return stringFor(kVersionKey); }
  void setLks_versionString(OptionalText version) { setUserInfoObject(version, kVersionKey); }
  std::optional<platform::Date> lks_dateCreated() const { return dateFor(kDateCreatedKey); }
  void setLks_dateCreated(std::optional<platform::Date> date) { setUserInfoObject(date, kDateCreatedKey); }
  std::optional<platform::Date> lks_dateModified() const { return dateFor(kDateModifiedKey); }
  void setLks_dateModified(std::optional<platform::Date> date) { setUserInfoObject(date, kDateModifiedKey); }
  std::optional<platform::Date> lks_dateLastOpened() const { return dateFor(kDateOpenedKey); }
  void setLks_dateLastOpened(std::optional<platform::Date> date) { setUserInfoObject(date, kDateOpenedKey); }
  bool isDeletable() const { return boolFor(kDeletableKey); }
  void setLks_deletable(bool deletable) { setUserInfoObject(deletable, kDeletableKey); }
  bool isDownloadable() const { return boolFor(kDownloadableKey); }
  void setLks_downloadable(bool downloadable) { setUserInfoObject(downloadable, kDownloadableKey); }
  bool isRevealable() const { return boolFor(kRevealableKey); }
  void setLks_revealable(bool revealable) { setUserInfoObject(revealable, kRevealableKey); }
  /// There is a viewed state to show.
  bool lks_hasViewedState() const { return boolFor(kShowViewedColumnKey); }
  void setLks_hasViewedState(bool has) { setUserInfoObject(has, kShowViewedColumnKey); }
  /// A fraction, 1 for viewed to the end, neither clamped nor scaled; travels as a 32-bit float.
  double lks_percentViewed() const { return valueFor(kPercentViewedKey).doubleValue(); }
  void setLks_percentViewed(double fraction) {
    setUserInfoObject(static_cast<float>(fraction), kPercentViewedKey);
  }
  /// Whether the fraction viewed is above 0.9999. Setting it overwrites the fraction with 1 or 0.
  bool lks_hasBeenViewed() const { return lks_percentViewed() > 0.9999; }
  void setLks_hasBeenViewed(bool viewed) { setLks_percentViewed(viewed ? 1 : 0); }
  /// Nothing when empty, too.
  std::optional<std::string> lks_revealButtonTitle() const;
  void setLks_revealButtonTitle(OptionalText title) { setUserInfoObject(title, kRevealButtonTitleKey); }

  // The texts of the panel that asks before this resource is deleted: the fields of LKSConfirmPanel.
  std::optional<std::string> lks_deleteTitle() const { return stringFor(kConfirmTitleKey); }
  void setLks_deleteTitle(OptionalText text) { setUserInfoObject(text, kConfirmTitleKey); }
  std::optional<std::string> lks_deleteMessage() const { return stringFor(kConfirmMessageKey); }
  void setLks_deleteMessage(OptionalText text) { setUserInfoObject(text, kConfirmMessageKey); }
  std::optional<std::string> lks_confirmButtonTitle() const { return stringFor(kConfirmOKKey); }
  void setLks_confirmButtonTitle(OptionalText text) { setUserInfoObject(text, kConfirmOKKey); }
  std::optional<std::string> lks_cancelButtonTitle() const { return stringFor(kConfirmCancelKey); }
  void setLks_cancelButtonTitle(OptionalText text) { setUserInfoObject(text, kConfirmCancelKey); }

  /// Whether both show the file of one path; items without file URLs are equal only to themselves.
  bool isEqualToLKSExtension(const MessageItem& other) const;

  /// A folder's last use as the desktop knows it, else the modification date, else the creation date.
  static std::optional<platform::Date> lks_lastOpenedDateForURL(const platform::URL& url);

  /// Allocated bytes of a file, or of everything in a folder; 0 also when the file cannot be read. Blocks for
  /// the whole walk.
  static int64_t lks_calculateSizeOfItemAtURL(const platform::URL& url);
  /// Allocated bytes of everything in the folder; 0 and a line in the log when it cannot be read.
  static int64_t lks_calculateSizeOfFolderAtPath(std::string_view path);

  // Deletion, with everything beneath: for good, in the background, in no particular order. These return at
  // once and tell nothing of the outcome; what fails is said on the console. A resource without a URL throws
  // std::invalid_argument before anything is deleted.
  static void lks_deleteItemAtURL(const platform::URL& url);
  static void lks_deleteItemsAtURLs(std::vector<platform::URL> urls);
  static void lks_deleteResourceItems(const std::vector<LKSResource>& items);
  void lks_deleteResourceItem() const;

  // Older names.
  static LKSResource initResourceItemWithName(OptionalText name) { return initLKSResourceItemWithName(name); }
  static std::optional<LKSResource> initResourceItemWithFileURL(const platform::URL& url) {
    return initLKSResourceItemWithFileURL(url);
  }
  static std::optional<LKSResource> initResourceWithFileAtPath(std::string_view path) {
    return initLKSResourceWithFileAtPath(path);
  }
  static std::optional<LKSResource> initResourceItemWithFilePath(std::string_view path) {
    return initLKSResourceWithFileAtPath(path);
  }
  bool isEqualToExtension(const MessageItem& other) const { return isEqualToLKSExtension(other); }
  std::optional<platform::URL> URL() const { return lks_URL(); }
  void setURL(std::optional<platform::URL> url) { setLks_URL(std::move(url)); }
  std::optional<std::string> versionString() const { return lks_versionString(); }
  void setVersionString(OptionalText version) { setLks_versionString(version); }
  std::optional<platform::Date> dateCreated() const { return lks_dateCreated(); }
  void setDateCreated(std::optional<platform::Date> date) { setLks_dateCreated(date); }
  std::optional<platform::Date> dateModified() const { return lks_dateModified(); }
  void setDateModified(std::optional<platform::Date> date) { setLks_dateModified(date); }
  std::optional<platform::Date> dateLastOpened() const { return lks_dateLastOpened(); }
  void setDateLastOpened(std::optional<platform::Date> date) { setLks_dateLastOpened(date); }
  bool deletable() const { return isDeletable(); }
  void setDeletable(bool deletable) { setLks_deletable(deletable); }
  bool downloadable() const { return isDownloadable(); }
  void setDownloadable(bool downloadable) { setLks_downloadable(downloadable); }
  bool revealable() const { return isRevealable(); }
  void setRevealable(bool revealable) { setLks_revealable(revealable); }
  bool hasViewedState() const { return lks_hasViewedState(); }
  void setHasViewedState(bool has) { setLks_hasViewedState(has); }
  bool hasBeenViewed() const { return lks_hasBeenViewed(); }
  void setHasBeenViewed(bool viewed) { setLks_hasBeenViewed(viewed); }
  double percentViewed() const { return lks_percentViewed(); }
  void setPercentViewed(double fraction) { setLks_percentViewed(fraction); }
  std::optional<std::string> revealButtonTitle() const { return lks_revealButtonTitle(); }
  void setRevealButtonTitle(OptionalText title) { setLks_revealButtonTitle(title); }
  std::optional<std::string> deleteTitle() const { return lks_deleteTitle(); }
  void setDeleteTitle(OptionalText text) { setLks_deleteTitle(text); }
  std::optional<std::string> deleteMessage() const { return lks_deleteMessage(); }
  void setDeleteMessage(OptionalText text) { setLks_deleteMessage(text); }
  std::optional<std::string> confirmButtonTitle() const { return lks_confirmButtonTitle(); }
  void setConfirmButtonTitle(OptionalText text) { setLks_confirmButtonTitle(text); }
  std::optional<std::string> cancelButtonTitle() const { return lks_cancelButtonTitle(); }
  void setCancelButtonTitle(OptionalText text) { setLks_cancelButtonTitle(text); }
  static std::optional<platform::Date> lastOpenedDateForURL(const platform::URL& url) {
    return lks_lastOpenedDateForURL(url);
  }
  static int64_t calculateSizeOfItemAtURL(const platform::URL& url) {
    return lks_calculateSizeOfItemAtURL(url);
  }
  static int64_t calculateSizeOfFolderAtPath(std::string_view path) {
    return lks_calculateSizeOfFolderAtPath(path);
  }
  static void deleteItemAtURL(const platform::URL& url) { lks_deleteItemAtURL(url); }
  static void deleteItemsAtURLs(std::vector<platform::URL> urls) { lks_deleteItemsAtURLs(std::move(urls)); }
  static void deleteResourceItems(const std::vector<LKSResource>& items) { lks_deleteResourceItems(items); }
  void deleteResourceItem() const { lks_deleteResourceItem(); }
};

}  // namespace larkspan

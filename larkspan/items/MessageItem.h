#pragma once

#include "larkspan/items/LKSIconConstructor.h"
#include "larkspan/items/Vocabulary.h"
#include "larkspan/platform/appext/ExtensionItem.h"
#include "larkspan/platform/archive/TableRows.h"
#include "larkspan/platform/base/Value.h"
#include "larkspan/platform/desktop/FileProviderItem.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace larkspan {

/// A text to store; nothing removes the key.
using OptionalText = std::optional<std::string_view>;

/// What travels between host and extension: a view of one extension item, whose user-info dictionary is its
/// only state. Copying a view shares the item, and two views are equal when they show the same item. The
/// kinds of item (LKSResource, LKSTipMessage, …) are views with more accessors and can be made from any
/// MessageItem. Getters hand on what is stored: absent or of another type reads as nothing, 0 or false unless
/// said otherwise. Setters of objects store nothing by removing the key.
/// Owner:  the item lives as long as a view shows it. A view of a long list that came from another process keeps the
///         list's bytes and all items that were made of it; `MessageItem(view.item())` keeps its item alone, with what
///         that shares.
/// Thread: one item is not to be changed from two threads at a time.
class MessageItem {
 public:
  /// A new item without a dictionary.
  MessageItem() : MessageItem(std::make_shared<platform::ExtensionItem>()) {}
  explicit MessageItem(std::shared_ptr<platform::ExtensionItem> item) : source_(std::move(item)) {}
  /// The item of a row, which is made when it is asked for as a whole.
  MessageItem(std::shared_ptr<platform::TableRows> rows, uint32_t row)
      : source_(std::move(rows)), row_(row) {}
  /// An item that holds only its name, without a kind; nothing for an empty name.
  static std::optional<MessageItem> initWithLKSName(OptionalText name);

  const platform::Dictionary& userInfo() const {
    return static_cast<const platform::ExtensionItem&>(*object()).userInfo();
  }
  void setUserInfo(platform::Dictionary userInfo) { item()->setUserInfo(std::move(userInfo)); }
  std::shared_ptr<platform::ExtensionItem> item() const {
    return std::static_pointer_cast<platform::ExtensionItem>(object());
  }
  /// The item by reference, without a share in it; valid as long as this view is and is not assigned to.
  const std::shared_ptr<platform::Object>& object() const {
    return row_ == kNoRow ? source_ : rows().object(row_);
  }

  /// Stores under the key; a none value removes it. Removing what is not there leaves the dictionary
  /// untouched.
  void setUserInfoObject(platform::Value object, Key key);
  /// Adds the entries whose keys the item lacks; its own entries win.
  void addUserInfoObjectsFromDict(const platform::Dictionary& dictionary);

  /// What kind of item it is, if it says so: mostly one of the words of Vocabulary.h.
  std::optional<std::string> kind() const { return stringFor(kItemKindKey); }
  std::optional<std::string> lks_name() const { return stringFor(kNameKey); }
  void setLks_name(OptionalText name) { setUserInfoObject(name, kNameKey); }
  std::optional<std::string> lks_category() const { return stringFor(kCategoryKey); }
  void setLks_category(OptionalText category) { setUserInfoObject(category, kCategoryKey); }
  /// Icons do not travel: always nothing. Send an LKSIconConstructor.
  std::shared_ptr<platform::Object> icon() const { return nullptr; }
  void setIcon(const std::shared_ptr<platform::Object>&) {}
  /// Nothing when absent, empty or not decodable; the latter is said on the console.
  std::shared_ptr<LKSIconConstructor> lks_iconConstructor() const;
  /// Nothing given changes nothing: this setter cannot remove its key.
  void setLks_iconConstructor(const std::shared_ptr<LKSIconConstructor>& icon);
  std::optional<std::string> lks_iconFileType() const { return stringFor(kIconFileTypeKey); }
  void setLks_iconFileType(OptionalText type) { setUserInfoObject(type, kIconFileTypeKey); }
  platform::Value lks_reference() const { return valueFor(kReferenceKey); }
  void setLks_reference(platform::Value reference) { setUserInfoObject(std::move(reference), kReferenceKey); }
  std::shared_ptr<platform::FileProviderItem> lks_fpItem() const;
  void setFPItem(const std::shared_ptr<platform::FileProviderItem>& item);
  int64_t lks_tag() const { return integerFor(kTagKey); }
  void setLks_tag(int64_t tag) { setUserInfoObject(tag, kTagKey); }

  /// Bytes: application plus data size if either is there, else the size stored, else
  /// LKSExtensionTotalSpaceUsedUnknown. The sum saturates.
  int64_t lks_size() const;
  void setLks_size(int64_t bytes) { setUserInfoObject(bytes, kSizeKey); }
  int64_t lks_appSize() const { return integerFor(kAppSizeKey); }
  void setLks_appSize(int64_t bytes) { setUserInfoObject(bytes, kAppSizeKey); }
  int64_t lks_dataSize() const { return integerFor(kDataSizeKey); }
  void setLks_dataSize(int64_t bytes) { setUserInfoObject(bytes, kDataSizeKey); }
  /// Bytes that deleting the item frees: all of `lks_size()` unless said otherwise.
  int64_t lks_deletableSize() const;
  void setLks_deletableSize(int64_t bytes) { setUserInfoObject(bytes, kDeletableSizeKey); }
  std::optional<std::string> lks_helpAnchor() const { return stringFor(kHelpAnchorKey); }
  void setLks_helpAnchor(OptionalText anchor) { setUserInfoObject(anchor, kHelpAnchorKey); }
  std::optional<std::string> lks_helpBook() const { return stringFor(kHelpBookKey); }
  void setLks_helpBook(OptionalText book) { setUserInfoObject(book, kHelpBookKey); }

  std::string description() const { return item()->description(); }
  // Only an item and a row that made it are compared as items.
  friend bool operator==(const MessageItem& a, const MessageItem& b) {
    if (a.source_ == b.source_) return a.row_ == b.row_;
    return (a.row_ == kNoRow) != (b.row_ == kNoRow) && a.item() == b.item();
  }

  // Older names.
  static std::optional<MessageItem> initWithName(OptionalText name) { return initWithLKSName(name); }
  std::optional<std::string> name() const { return lks_name(); }
  void setName(OptionalText name) { setLks_name(name); }
  std::shared_ptr<LKSIconConstructor> iconConstructor() const { return lks_iconConstructor(); }
  void setIconConstructor(const std::shared_ptr<LKSIconConstructor>& icon) { setLks_iconConstructor(icon); }
  std::optional<std::string> iconFileType() const { return lks_iconFileType(); }
  void setIconFileType(OptionalText type) { setLks_iconFileType(type); }
  std::optional<std::string> category() const { return lks_category(); }
  void setCategory(OptionalText category) { setLks_category(category); }
  platform::Value reference() const { return lks_reference(); }
  void setReference(platform::Value reference) { setLks_reference(std::move(reference)); }
  int64_t size() const { return lks_size(); }
  void setSize(int64_t bytes) { setLks_size(bytes); }
  int64_t appSize() const { return lks_appSize(); }
  void setAppSize(int64_t bytes) { setLks_appSize(bytes); }
  int64_t dataSize() const { return lks_dataSize(); }
  void setDataSize(int64_t bytes) { setLks_dataSize(bytes); }
  int64_t deletableSize() const { return lks_deletableSize(); }
  void setDeletableSize(int64_t bytes) { setLks_deletableSize(bytes); }
  int64_t tag() const { return lks_tag(); }
  void setTag(int64_t tag) { setLks_tag(tag); }
  std::optional<std::string> helpAnchor() const { return lks_helpAnchor(); }
  void setHelpAnchor(OptionalText anchor) { setLks_helpAnchor(anchor); }
  std::optional<std::string> helpBook() const { return lks_helpBook(); }
  void setHelpBook(OptionalText book) { setLks_helpBook(book); }
  std::shared_ptr<platform::FileProviderItem> fpItem() const { return lks_fpItem(); }
  [[deprecated("forwards to an operation that does not exist: always throws; call setFPItem")]] void
  setFpItem(const std::shared_ptr<platform::FileProviderItem>&) {
    throw std::logic_error("unknown operation setLks_fpItem:");
  }

 protected:
  /// What the user-info dictionary has under the key, or none.
  platform::Value valueFor(const Key& key) const {
    return row_ == kNoRow ? static_cast<const platform::ExtensionItem&>(*source_).userInfo().get(key)
                          : rows().get(row_, key);
  }
  std::optional<std::string> stringFor(const Key& key) const {
    return row_ == kNoRow ? valueFor(key).string() : rows().string(row_, key);
  }
  /// The number under the key, 0 for what is no number; `absent` if there is nothing.
  int64_t integerFor(const Key& key, int64_t absent = 0) const {
    return row_ == kNoRow ? integerOfItem(key, absent) : rows().integer(row_, key, absent);
  }
  bool boolFor(const Key& key) const {
    return row_ == kNoRow ? valueFor(key).boolValue() : rows().boolean(row_, key);
  }
  std::optional<platform::Date> dateFor(const Key& key) const {
    return row_ == kNoRow ? valueFor(key).date() : rows().date(row_, key);
  }
  std::optional<platform::URL> urlFor(const Key& key) const {
    return row_ == kNoRow ? valueFor(key).url() : rows().url(row_, key);
  }

 private:
  static constexpr uint32_t kNoRow = UINT32_MAX;
  /// Not inline, so that a sum over rows does not carry it along.
  int64_t integerOfItem(const Key& key, int64_t absent) const;
  const platform::TableRows& rows() const { return static_cast<const platform::TableRows&>(*source_); }

  std::shared_ptr<platform::Object> source_;  // The item, or the rows that it is one of.
  uint32_t row_ = kNoRow;
};

/// The one currency of requests and replies.
using Items = std::vector<MessageItem>;

/// The items as an array, which makes no values of them before somebody asks for its members.
platform::Array arrayFromItems(Items items);
/// The array's items; members that are none are left out.
Items itemsFromValue(const platform::Value& array);
/// The same, behind those that are there: for a reply that comes in parts.
void appendItems(Items& items, const platform::Array& array);

}  // namespace larkspan

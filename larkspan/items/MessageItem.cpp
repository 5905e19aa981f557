#include "larkspan/items/MessageItem.h"

#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Saturating.h"
#include "larkspan/platform/log/Console.h"

#include <algorithm>

namespace larkspan {

using platform::Dictionary;
using platform::Value;

std::optional<MessageItem> MessageItem::initWithLKSName(OptionalText name) {
  if (!name || name->empty()) return std::nullopt;
  MessageItem result;
  result.setUserInfo(Dictionary{{kNameKey, *name}});
  return result;
}

void MessageItem::setUserInfoObject(Value object, Key key) {
  item()->setUserInfoObject(std::move(object), key);
}

void MessageItem::addUserInfoObjectsFromDict(const Dictionary& dictionary) {
  if (dictionary.empty()) return;
  Dictionary merged = dictionary;
  for (const auto& entry : userInfo()) {
    if (!entry.value.isNone()) merged.set(entry.key(), entry.value);
  }
  setUserInfo(std::move(merged));
}

std::shared_ptr<LKSIconConstructor> MessageItem::lks_iconConstructor() const {
  const auto data = valueFor(kIconConstructor).data();
  if (!data || data->bytes.empty()) return nullptr;
  auto result = platform::KeyedUnarchiver::unarchivedObject<LKSIconConstructor>(*data);
  if (result.error) {
    platform::consoleLog(platform::format("Failed to unarchive LKSIconConstructor: %@", result.error));
  }
  return result.object;
}

void MessageItem::setLks_iconConstructor(const std::shared_ptr<LKSIconConstructor>& icon) {
  if (!icon) return;
  auto result = platform::KeyedArchiver::archivedData(icon);
  if (result.error)
    platform::consoleLog(platform::format("Failed to archive LKSIconConstructor: %@", result.error));
  setUserInfoObject(result.error ? Value() : Value(result.data), kIconConstructor);
}

std::shared_ptr<platform::FileProviderItem> MessageItem::lks_fpItem() const {
  const auto data = valueFor(kFPItemKey).data();
  if (!data) return nullptr;
  return platform::KeyedUnarchiver::unarchivedObject<platform::FileProviderItem>(*data).object;
}

void MessageItem::setFPItem(const std::shared_ptr<platform::FileProviderItem>& item) {
  const auto result = item ? platform::KeyedArchiver::archivedData(item) : platform::KeyedArchiver::Result{};
  setUserInfoObject(result.data.bytes.empty() ? Value() : Value(result.data), kFPItemKey);
}

int64_t MessageItem::integerOfItem(const Key& key, int64_t absent) const {
  return valueFor(key).integerOr(absent);
}

int64_t MessageItem::lks_size() const {
  const int64_t app = lks_appSize();
  const int64_t data = lks_dataSize();
  if (app > 0 || data >= 1) return platform::saturatingSum(app, data);
  return integerFor(kSizeKey, LKSExtensionTotalSpaceUsedUnknown);
}

int64_t MessageItem::lks_deletableSize() const {
  const Value size = valueFor(kDeletableSizeKey);
  return size.isNone() ? lks_size() : size.integerValue();
}

namespace {

/// Items in an array that has not made values of them.
class ItemList final : public platform::PackedMembers {
 public:
  explicit ItemList(Items items) : items_(std::move(items)) {}

  const Items& items() const { return items_; }
  std::size_t size() const override { return items_.size(); }
  const std::shared_ptr<platform::Object>& object(std::size_t index) const override {
    return items_[index].object();
  }

 private:
  const Items items_;
};

}  // namespace

platform::Array arrayFromItems(Items items) {
  if (items.empty()) return {};
  return platform::Array::withPacked({std::make_shared<ItemList>(std::move(items))});
}

Items itemsFromValue(const Value& array) {
  Items items;
  appendItems(items, array.array());
  return items;
}

void appendItems(Items& items, const platform::Array& array) {
  // Twice the room at least, or each of many parts would move all items before it.
  if (const std::size_t size = items.size() + array.size(); size > items.capacity())
    items.reserve(std::max(size, 2 * items.capacity()));
  for (const Value& value : array.packed()) {
    if (auto single = value.objectOf<platform::ExtensionItem>()) {
      items.emplace_back(std::move(single));
    } else if (const auto list = value.objectOf<ItemList>()) {
      items.insert(items.end(), list->items().begin(), list->items().end());
    } else if (const auto rows = value.objectOf<platform::TableRows>();
               rows && &rows->objectClass() == &platform::ExtensionItem::archiveClass()) {
      for (uint32_t row = 0; row < rows->size(); ++row) items.emplace_back(rows, row);
    } else if (const auto* const others = platform::packedIn(value)) {
      for (std::size_t i = 0; i < others->size(); ++i) {
        if (auto item = Value(others->object(i)).objectOf<platform::ExtensionItem>())
          items.emplace_back(std::move(item));
      }
    }
  }
}

}  // namespace larkspan

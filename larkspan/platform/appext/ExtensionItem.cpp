#include "larkspan/platform/appext/ExtensionItem.h"

#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "larkspan/platform/desktop/FileProviderItem.h"

namespace larkspan::platform {

namespace {
constexpr Key kUserInfoCodingKey = "userInfo";
}

void ExtensionItem::setUserInfoObject(Value object, Key key) {
  if (object.isNone()) {
    userInfo_.remove(key);
    return;
  }
  if (userInfo_.storage() == nullptr) userInfo_ = Dictionary::withCapacity(8);
  userInfo_.set(key, std::move(object));
}

const ClassSet& ExtensionItem::itemClasses() {
  static const auto* classes =
      new ClassSet(ClassSet{ValueClass::array, ValueClass::date, ValueClass::dictionary, ValueClass::number,
                            ValueClass::string, ValueClass::url, ValueClass::data, ValueClass::error}
                       .with<FileProviderItem>()
                       .with<ExtensionItem>());
  return *classes;
}

const ObjectClass& ExtensionItem::archiveClass() {
  static constexpr RowClass kRows{&ExtensionItem::itemClasses, &ExtensionItem::makeFromRow};
  static constexpr ObjectClass kClass{"ExtensionItem", &ExtensionItem::initWithCoder, &kRows};
  return kClass;
}

std::shared_ptr<Object> ExtensionItem::makeFromRow(Dictionary row) {
  auto item = std::make_shared<ExtensionItem>();
  item->userInfo_ = std::move(row);
  return item;
}

void ExtensionItem::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeObject(userInfo_, kUserInfoCodingKey);
}

std::shared_ptr<Object> ExtensionItem::initWithCoder(KeyedUnarchiver& coder) {
  auto item = std::make_shared<ExtensionItem>();
  item->userInfo_ = coder.decodeObject(kUserInfoCodingKey, itemClasses()).dictionary();
  return item;
}

std::shared_ptr<Object> ExtensionItem::deepCopy() const {
  auto copy = std::make_shared<ExtensionItem>();
  copy->userInfo_ = userInfo_.deepCopy();
  return copy;
}

std::string ExtensionItem::description() const { return "<ExtensionItem " + userInfo_.description() + ">"; }

}  // namespace larkspan::platform

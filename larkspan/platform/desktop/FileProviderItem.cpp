#include "larkspan/platform/desktop/FileProviderItem.h"

#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"

namespace larkspan::platform {

std::shared_ptr<FileProviderItem> FileProviderItem::make(std::string identifier, std::optional<URL> fileURL) {
  return std::shared_ptr<FileProviderItem>(new FileProviderItem(std::move(identifier), std::move(fileURL)));
}

const ObjectClass& FileProviderItem::archiveClass() {
  static constexpr ObjectClass kClass{"FileProviderItem", &FileProviderItem::initWithCoder};
  return kClass;
}

void FileProviderItem::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeObject(identifier_, "identifier");
  coder.encodeObject(fileURL_, "fileURL");
}

std::shared_ptr<Object> FileProviderItem::initWithCoder(KeyedUnarchiver& coder) {
  auto identifier = coder.decodeObject("identifier", ClassSet{ValueClass::string}).string();
  if (!identifier) return nullptr;
  return make(std::move(*identifier), coder.decodeObject("fileURL", ClassSet{ValueClass::url}).url());
}

}  // namespace larkspan::platform

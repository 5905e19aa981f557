#include "larkspan/items/LKSIconConstructor.h"

#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "larkspan/platform/base/Format.h"

namespace larkspan {

using platform::ClassSet;
using platform::SecurityScopedURLWrapper;
using platform::ValueClass;

namespace {

constexpr platform::Key kTypeCodingKey = "type";
constexpr platform::Key kStringCodingKey = "string";
constexpr platform::Key kWrapperCodingKey = "fileURLWrapper";

}  // namespace

std::shared_ptr<LKSIconConstructor> LKSIconConstructor::initWithImageNamed(std::optional<std::string> name) {
  std::shared_ptr<LKSIconConstructor> icon(new LKSIconConstructor(LKSIconConstructorTypeImageName));
  icon->string_ = std::move(name);
  return icon;
}

std::shared_ptr<LKSIconConstructor> LKSIconConstructor::initWithBundleID(
    std::optional<std::string> identifier) {
  std::shared_ptr<LKSIconConstructor> icon(new LKSIconConstructor(LKSIconConstructorTypeBundleID));
  icon->string_ = std::move(identifier);
  return icon;
}

std::shared_ptr<LKSIconConstructor> LKSIconConstructor::initWithURL(std::optional<platform::URL> url) {
  std::shared_ptr<LKSIconConstructor> icon(new LKSIconConstructor(LKSIconConstructorTypeURL));
  if (url) icon->fileURLWrapper_ = SecurityScopedURLWrapper::initWithURL(std::move(*url), true);
  return icon;
}

std::optional<std::string> LKSIconConstructor::string() const {
  const std::lock_guard lock(mutex_);
  return string_;
}

void LKSIconConstructor::setString(std::optional<std::string> string) {
  const std::lock_guard lock(mutex_);
  string_ = std::move(string);
}

std::shared_ptr<SecurityScopedURLWrapper> LKSIconConstructor::fileURLWrapper() const {
  const std::lock_guard lock(mutex_);
  return fileURLWrapper_;
}

void LKSIconConstructor::setFileURLWrapper(std::shared_ptr<SecurityScopedURLWrapper> wrapper) {
  const std::lock_guard lock(mutex_);
  fileURLWrapper_ = std::move(wrapper);
}

const platform::ObjectClass& LKSIconConstructor::archiveClass() {
  static constexpr platform::ObjectClass kClass{"LKSIconConstructor", &LKSIconConstructor::initWithCoder};
  return kClass;
}

void LKSIconConstructor::encodeWithCoder(platform::KeyedArchiver& coder) const {
  coder.encodeInteger(type_, kTypeCodingKey);
  coder.encodeObject(string(), kStringCodingKey);
  coder.encodeObject(fileURLWrapper(), kWrapperCodingKey);
}

std::shared_ptr<platform::Object> LKSIconConstructor::initWithCoder(platform::KeyedUnarchiver& coder) {
  std::shared_ptr<LKSIconConstructor> icon(new LKSIconConstructor(coder.decodeInteger(kTypeCodingKey)));
  icon->string_ = coder.decodeObject(kStringCodingKey, ClassSet{ValueClass::string}).string();
  icon->fileURLWrapper_ = coder.decodeObject(kWrapperCodingKey, ClassSet().with<SecurityScopedURLWrapper>())
                              .objectOf<SecurityScopedURLWrapper>();
  return icon;
}

std::string LKSIconConstructor::description() const {
  const auto wrapper = fileURLWrapper();
  return platform::format("<LKSIconConstructor %p - type: %@ - string: %@ - url: %@>",
                          static_cast<const void*>(this), type_, string(),
                          wrapper ? std::optional(wrapper->url()) : std::nullopt);
}

}  // namespace larkspan

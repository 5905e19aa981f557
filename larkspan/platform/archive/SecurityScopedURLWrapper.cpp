#include "larkspan/platform/archive/SecurityScopedURLWrapper.h"

#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"

namespace larkspan::platform {

std::shared_ptr<SecurityScopedURLWrapper> SecurityScopedURLWrapper::initWithURL(URL url, bool readonly) {
  return std::shared_ptr<SecurityScopedURLWrapper>(new SecurityScopedURLWrapper(std::move(url), readonly));
}

const ObjectClass& SecurityScopedURLWrapper::archiveClass() {
  static constexpr ObjectClass kClass{"SecurityScopedURLWrapper", &SecurityScopedURLWrapper::initWithCoder};
  return kClass;
}

void SecurityScopedURLWrapper::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeObject(url_, "url");
  coder.encodeBool(readonly_, "readonly");
}

std::shared_ptr<Object> SecurityScopedURLWrapper::initWithCoder(KeyedUnarchiver& coder) {
  const auto url = coder.decodeObject("url", ClassSet{ValueClass::url}).url();
  return url ? initWithURL(*url, coder.decodeBool("readonly")) : nullptr;
}

}  // namespace larkspan::platform

#include "larkspan/platform/ipc/PassedObject.h"

#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "larkspan/platform/ipc/Connection.h"

#include <limits>
#include <utility>

namespace larkspan::platform {

std::shared_ptr<PassedObject> PassedObject::make(std::shared_ptr<ExportedObject> object) {
  const std::shared_ptr<PassedObject> passed(new PassedObject);
  passed->object_ = std::move(object);
  return passed;
}

const ObjectClass& PassedObject::archiveClass() {
  static constexpr ObjectClass kClass{"Proxy", &PassedObject::initWithCoder};
  return kClass;
}

void PassedObject::encodeWithCoder(KeyedArchiver& coder) const {
  if (channel_ != 0) return coder.encodeInt64(channel_, "channel");
  // It stands where none may be passed; an object of no archived class fails the message.
  coder.encodeObject(std::make_shared<Object>(), "channel");
}

std::shared_ptr<Object> PassedObject::initWithCoder(KeyedUnarchiver& coder) {
  const int64_t channel = coder.decodeInt64("channel");
  if (channel < 1 || channel > std::numeric_limits<uint32_t>::max()) return nullptr;
  const std::shared_ptr<PassedObject> passed(new PassedObject);
  passed->channel_ = static_cast<uint32_t>(channel);
  return passed;
}

}  // namespace larkspan::platform

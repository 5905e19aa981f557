#include "larkspan/platform/ipc/Interface.h"

#include "larkspan/platform/ipc/PassedObject.h"

#include <algorithm>
#include <stdexcept>

namespace larkspan::platform {

const Interface::Method* Interface::find(std::string_view method) const {
  const auto found =
      std::find_if(methods_.begin(), methods_.end(), [&](const Method& m) { return m.name == method; });
  return found == methods_.end() ? nullptr : &*found;
}

const ClassSet& Interface::classes(std::string_view method, std::size_t index, bool ofReply) const {
  const Method* found = find(method);
  if (!found || (ofReply && !found->reply)) throw std::out_of_range("Interface: no such method or reply");
  return (ofReply ? *found->reply : found->arguments).at(index);
}

void Interface::setClasses(ClassSet classes, std::string_view method, std::size_t index, bool ofReply) {
  const_cast<ClassSet&>(this->classes(method, index, ofReply)) = std::move(classes);
}

void Interface::setInterface(std::shared_ptr<const Interface> interface, std::string_view method,
                             std::size_t index) {
  setClasses(ClassSet().with<PassedObject>(), method, index, false);
  const_cast<Method*>(find(method))->passed[index] = std::move(interface);
}

std::shared_ptr<const Interface> Interface::interface(std::string_view method, std::size_t index) const {
  const Method* const found = find(method);
  if (!found) return nullptr;
  const auto passed = found->passed.find(index);
  return passed == found->passed.end() ? nullptr : passed->second;
}

}  // namespace larkspan::platform

#include "larkspan/platform/base/Object.h"

#include <cstdio>
#include <cstdlib>
#include <typeinfo>

#include <cxxabi.h>

namespace larkspan::platform {

std::string Object::className() const {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(typeid(*this).name(), nullptr, nullptr, &status), std::free);
  std::string name = status == 0 ? demangled.get() : typeid(*this).name();
  const std::size_t scope = name.rfind("::");
  return scope == std::string::npos ? name : name.substr(scope + 2);
}

std::string Object::description() const {
  char address[32];
  std::snprintf(address, sizeof address, ":%p>", static_cast<const void*>(this));
  return "<" + className() + address;
}

}  // namespace larkspan::platform

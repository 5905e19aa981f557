#pragma once

#include "larkspan/platform/archive/ClassSet.h"

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace larkspan::platform {

/// The methods of one direction of a connection, and the classes that each argument may hold.
/// A value that is built once and read from then on.
class Interface {
 public:
  struct Method {
    /// The full selector, which is the method's name on the wire.
    std::string name;
    /// The classes of each argument.
    std::vector<ClassSet> arguments;
    /// The classes of each value of the reply; nothing for a one-way message.
    std::optional<std::vector<ClassSet>> reply;
    /// Whether the list that the reply begins with goes ahead of it in parts when it is long, to a peer that takes them.
    bool inParts = false;
    /// The interfaces of the arguments that are objects passed by proxy, by their index.
    std::map<std::size_t, std::shared_ptr<const Interface>> passed{};
  };

  Interface(std::string name, std::vector<Method> methods)
      : name_(std::move(name)), methods_(std::move(methods)) {}

  const std::string& name() const { return name_; }
  /// Null for a name that the interface does not have.
  const Method* find(std::string_view method) const;

  /// The classes allowed in an argument (counted from 0), or in a value of the reply. Asking for what the
  /// interface does not have throws std::out_of_range.
  const ClassSet& classes(std::string_view method, std::size_t index, bool ofReply) const;
  void setClasses(ClassSet classes, std::string_view method, std::size_t index, bool ofReply);

  /// Declares an argument as an object that is passed by proxy (PassedObject.h) and has this interface, and then allows
  /// no other class there.
  void setInterface(std::shared_ptr<const Interface> interface, std::string_view method, std::size_t index);
  /// The interface of such an argument; null for another one.
  std::shared_ptr<const Interface> interface(std::string_view method, std::size_t index) const;

 private:
  std::string name_;
  std::vector<Method> methods_;
};

}  // namespace larkspan::platform

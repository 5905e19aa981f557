#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace larkspan::platform {

/// Base of everything that has an identity: message items, records, operations, handles.
/// Owner:  std::shared_ptr; watched with std::weak_ptr.
/// Thread: as the derived class says.
class Object : public std::enable_shared_from_this<Object> {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object() = default;

  /// The unqualified name of the object's actual class, as logs and archives print it.
  virtual std::string className() const;
  /// Text for logs and `%@`; "<ClassName:0xADDRESS>" unless a class says more.
  virtual std::string description() const;
  /// Identity unless a class defines more; consistent with `hash()`.
  virtual bool isEqual(const Object& other) const { return this == &other; }
  /// A copy that later changes to this object do not reach; null for what is not copied but shared.
  virtual std::shared_ptr<Object> deepCopy() const { return nullptr; }
  virtual std::size_t hash() const { return std::hash<const void*>()(this); }
};

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/base/Object.h"

#include <memory>
#include <string_view>

namespace larkspan::platform {

class KeyedArchiver;
class KeyedUnarchiver;

/// A class of archived objects: the name that stands in archives and how its objects are read.
/// Lives forever, as a static of the class it describes.
struct ObjectClass {
  std::string_view name;
  /// Makes an object from the fields at hand. Null when they make none, which fails the whole archive.
  std::shared_ptr<Object> (*decode)(KeyedUnarchiver&);
};

/// An object that archives and messages can carry. The concrete class also has
///
///     static const ObjectClass& archiveClass();
///
/// which `objectClass()` answers and `ClassSet::with` asks.
class Archivable : public Object {
 public:
  virtual const ObjectClass& objectClass() const = 0;
  /// Writes the fields; runs on the thread that archives.
  virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

}  // namespace larkspan::platform

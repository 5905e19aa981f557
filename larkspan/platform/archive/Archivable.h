#pragma once

#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Object.h"

#include <memory>
#include <string_view>

namespace larkspan::platform {

class ClassSet;
class KeyedArchiver;
class KeyedUnarchiver;

/// How objects that consist of one dictionary are read from the rows of a table.
struct RowClass {
  /// What the dictionary's values may be.
  const ClassSet& (*classes)();
  /// Makes the object; never null.
  std::shared_ptr<Object> (*make)(Dictionary row);
};

/// A class of archived objects: the name that stands in archives and how its objects are read.
/// Lives forever, as a static of the class it describes.
struct ObjectClass {
  std::string_view name;
  /// Makes an object from the fields at hand. Null when they make none, which fails the whole archive.
  std::shared_ptr<Object> (*decode)(KeyedUnarchiver&);
  /// Null for a class that tables do not hold.
  const RowClass* rows = nullptr;
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
  /// The dictionary that is all of an object whose class has a `RowClass`; else null.
  virtual const Dictionary* row() const { return nullptr; }
};

}  // namespace larkspan::platform

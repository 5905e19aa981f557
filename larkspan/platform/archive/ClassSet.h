#pragma once

#include "larkspan/platform/archive/Archivable.h"

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace larkspan::platform {

/// The classes of values that are no objects. A number is a boolean, an integer or a float.
enum class ValueClass : uint8_t { array, dictionary, set, string, number, data, date, url, error };

/// The classes that a decoder may make: nothing outside the set is made, whatever the bytes say. Each value
/// must be of a class in the set, and so must the members of containers, at any depth. None needs no
/// admission, nor do the keys of dictionaries, nor what an error holds. A set of nothing but container
/// classes admits strings within the containers. What an object holds is admitted by the sets with which its
/// class reads its fields. A value.
/// Thread: as std::vector.
class ClassSet {
 public:
  ClassSet() = default;
  ClassSet(std::initializer_list<ValueClass> classes) {
    for (const ValueClass value : classes) values_ |= bit(value);
  }
  /// All value classes.
  static const ClassSet& allValues();

  /// This set and the class T of archived objects as well.
  template <typename T>
  ClassSet with() const {
    ClassSet result = *this;
    result.objects_.push_back(&T::archiveClass());
    return result;
  }

  bool admits(ValueClass value) const { return (values_ & bit(value)) != 0; }
  /// The same for the bits of several classes, of what stands within a container.
  bool admitsWithin(uint16_t classes) const {
    const unsigned strings = admitsStringsWithin() ? bit(ValueClass::string) : 0;
    return (classes & ~(values_ | strings)) == 0;
  }
  static constexpr uint16_t bit(ValueClass value) {
    return static_cast<uint16_t>(1 << static_cast<int>(value));
  }
  /// Whether members of containers may be strings.
  bool admitsStringsWithin() const {
    const int containers = bit(ValueClass::array) | bit(ValueClass::dictionary) | bit(ValueClass::set);
    return admits(ValueClass::string) || (objects_.empty() && (values_ & ~containers) == 0);
  }
  /// The class of that name, or null if the set does not hold it.
  const ObjectClass* objectClass(std::string_view name) const {
    for (const ObjectClass* object : objects_) {
      if (object->name == name) return object;
    }
    return nullptr;
  }

 private:
  uint16_t values_ = 0;
  std::vector<const ObjectClass*> objects_;
};

}  // namespace larkspan::platform

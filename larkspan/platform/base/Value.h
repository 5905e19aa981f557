#pragma once

#include "larkspan/platform/base/Date.h"
#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/base/Object.h"
#include "larkspan/platform/base/Slice.h"
#include "larkspan/platform/base/URL.h"

#include <compare>
#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <variant>
#include <vector>

namespace larkspan::platform {

/// Raw bytes as a value, told apart from text.
struct Data {
  Slice bytes;

  static Data copy(std::string_view view) { return {Slice::copy(view)}; }
  std::string_view view() const { return bytes.view(); }
  friend bool operator==(const Data&, const Data&) = default;
};

/// Objects that are neighbours in an array and need not be made, or be values, before somebody asks for them.
class PackedMembers : public Object {
 public:
  virtual std::size_t size() const = 0;
  /// The object at the index, the same each time, for as long as this lives; never null.
  virtual const std::shared_ptr<Object>& object(std::size_t index) const = 0;
};

/// Values in order; immutable, copies share the elements. One may keep members in another form until somebody asks for
/// any of them.
class Array {
 public:
  Array() = default;
  Array(std::vector<Value> values);
  Array(std::initializer_list<Value> values);
  /// An array in which objects of `PackedMembers` stand for what they hold.
  static Array withPacked(std::vector<Value> values);

  std::size_t size() const;
  bool empty() const { return size() == 0; }
  /// The index must be below `size()`.
  const Value& operator[](std::size_t index) const;
  const Value* begin() const;
  const Value* end() const;
  /// The members as they came, objects of `PackedMembers` among them: for those who need not have all of them made.
  std::span<const Value> packed() const;
  /// `size` members from `start`; both must lie inside. Members that are packed as one stay so.
  Array part(std::size_t start, std::size_t size) const;
  friend bool operator==(const Array& a, const Array& b);

 private:
  struct Storage;
  explicit Array(std::shared_ptr<const Storage> storage) : storage_(std::move(storage)) {}
  std::span<const Value> values() const;
  std::shared_ptr<const Storage> storage_;
};

/// Values without order or repetition; immutable, copies share the elements. Objects within a set are the
/// same only when they are identical, whatever their `isEqual` says.
class Set {
 public:
  Set() = default;
  /// Equal values collapse into one.
  explicit Set(std::vector<Value> values);

  bool contains(const Value& value) const;
  /// The members in an order of the set's own.
  const Array& members() const { return members_; }
  friend bool operator==(const Set& a, const Set& b);

 private:
  Array members_;
};

/// One value of the kinds that can travel between processes. A number remembers what it holds and converts on
/// reading; a typed getter that meets another kind answers 0, false or nothing and never fails. Strings are
/// well-formed UTF-8 always: what is not is repaired (U+FFFD) on the way in.
/// Thread: as std::string; copies may be used from different threads.
class Value {
 public:
  enum class Kind : uint8_t {
    none,
    boolean,
    integer,
    float32,
    float64,
    string,
    data,
    date,
    url,
    array,
    dictionary,
    set,
    error,
    object,
  };

  Value() = default;
  Value(std::same_as<bool> auto value) : content_(value) {}
  template <std::integral T>
  requires(!std::same_as<T, bool> && !std::same_as<T, char> && (sizeof(T) < 8 || std::signed_integral<T>))
      Value(T value)
      : content_(static_cast<int64_t>(value)) {}
  Value(float value) : content_(value) {}
  Value(double value) : content_(value) {}
  Value(std::string_view text);
  /// Copies nothing.
  Value(Key text) : content_(Slice::immortal(text)) {}
  Value(const std::string& text) : Value(std::string_view(text)) {}
  Value(const char* text) : Value(std::string_view(text)) {}
  Value(Data data) : content_(std::move(data)) {}
  Value(Date date) : content_(date) {}
  Value(URL url) : content_(std::move(url)) {}
  Value(Array array) : content_(std::move(array)) {}
  Value(Dictionary dictionary) : content_(std::move(dictionary)) {}
  Value(Set set) : content_(std::move(set)) {}
  Value(Error error) : content_(std::move(error)) {}
  /// A null pointer is none.
  template <std::derived_from<Object> T>
  Value(std::shared_ptr<T> object) {
    if (object) content_ = std::shared_ptr<Object>(std::move(object));
  }
  /// Nothing is none.
  template <typename T>
  requires std::constructible_from<Value, T> Value(std::optional<T> value) {
    if (value) *this = Value(std::move(*value));
  }
  /// A string whose bytes are known to be well-formed UTF-8 and are shared, not copied.
  static Value wellFormed(Slice text);

  Kind kind() const { return static_cast<Kind>(content_.index()); }
  bool isNone() const { return kind() == Kind::none; }
  bool isNumber() const { return kind() >= Kind::boolean && kind() <= Kind::float64; }

  bool boolValue() const;
  /// Fractions are cut off towards zero, what does not fit saturates.
  int64_t integerValue() const {
    const auto* const integer = contentAs<int64_t>();
    return integer ? *integer : convertedInteger();
  }
  /// The same, or `absent` for none.
  int64_t integerOr(int64_t absent) const { return isNone() ? absent : integerValue(); }
  double doubleValue() const;

  std::optional<std::string> string() const;
  /// The text without a copy, empty for other kinds; lives as long as this value is not assigned to.
  std::string_view text() const&;
  std::string_view text() const&& = delete;
  std::optional<Data> data() const { return copyOf<Data>(); }
  std::optional<Date> date() const { return copyOf<Date>(); }
  std::optional<URL> url() const& { return copyOf<URL>(); }
  std::optional<URL> url() && {
    auto* const content = std::get_if<URL>(&content_);
    return content ? std::optional<URL>(std::move(*content)) : std::nullopt;
  }
  /// Empty for other kinds, as are `dictionary()` and `set()`.
  Array array() const { return copyOf<Array>().value_or(Array()); }
  Dictionary dictionary() const { return copyOf<Dictionary>().value_or(Dictionary()); }
  Set set() const { return copyOf<Set>().value_or(Set()); }
  std::optional<Error> error() const { return copyOf<Error>(); }
  std::shared_ptr<Object> object() const { return copyOf<std::shared_ptr<Object>>().value_or(nullptr); }
  /// The object if it is of that class.
  template <typename T>
  std::shared_ptr<T> objectOf() const {
    const auto* const stored = contentAs<std::shared_ptr<Object>>();
    if (!stored) return nullptr;
    if constexpr (std::is_final_v<T>) {
      // Quicker than a walk through the bases, and there are many items in a list.
      const Object& object = **stored;
      return typeid(object) == typeid(T) ? std::static_pointer_cast<T>(*stored) : nullptr;
    } else {
      return std::dynamic_pointer_cast<T>(*stored);
    }
  }
  /// What is stored, without a copy, if it is of exactly that type of `Content`; else null.
  template <typename T>
  const T* contentAs() const {
    return std::get_if<T>(&content_);
  }
  /// The strings of an array; members of other kinds are left out.
  std::vector<std::string> strings() const;

  /// As `%@` prints it: strings as they stand, "(null)" for none.
  std::string description() const;
  /// A copy that shares no array, dictionary or copyable object with this one.
  Value deepCopy() const;

  /// Equal kinds and contents: 1, 1.0 and true are three values. Floats compare by their bits, so that a set
  /// can hold any of them; objects by `isEqual`.
  friend bool operator==(const Value& a, const Value& b);
  /// A total order without meaning of its own, for sorting.
  friend std::strong_ordering order(const Value& a, const Value& b);

 private:
  using Content = std::variant<std::monostate, bool, int64_t, float, double, Slice, Data, Date, URL, Array,
                               Dictionary, Set, Error, std::shared_ptr<Object>>;
  int64_t convertedInteger() const;
  template <typename T>
  std::optional<T> copyOf() const {
    const T* content = std::get_if<T>(&content_);
    return content ? std::optional<T>(*content) : std::nullopt;
  }

  Content content_;
};

/// What stands for several members of an array; null for any other value.
const PackedMembers* packedIn(const Value& value);

/// How a dictionary is written down: `Dictionary{{"key", 1}, {kOther, "text"}}`. No std::pair, whose
/// constructor would hide from the compiler that the key is a literal.
struct Dictionary::NewEntry {
  Key key;
  Value value;
};

/// What an iteration passes; it points into the dictionary.
struct Dictionary::Entry {
  const Slice& name;
  const Value& value;

  std::string_view key() const { return name.view(); }
};

class Dictionary::Iterator {
 public:
  using value_type = Entry;
  using difference_type = std::ptrdiff_t;

  Iterator() = default;
  Iterator(const Slice* key, const Value* value) : key_(key), value_(value) {}
  Entry operator*() const { return {*key_, *value_}; }
  Iterator& operator++() {
    ++key_;
    ++value_;
    return *this;
  }
  Iterator operator++(int) {
    const Iterator old = *this;
    ++*this;
    return old;
  }
  friend bool operator==(const Iterator& a, const Iterator& b) { return a.value_ == b.value_; }

 private:
  const Slice* key_ = nullptr;
  const Value* value_ = nullptr;
};

/// How packed entries are read. Functions instead of a class: there is one coding, which lies above this folder.
struct Dictionary::PackedCoding {
  /// The value under the key; null when there is none.
  std::optional<Value> (*find)(const Packed& packed, std::string_view key);
  /// All of it, no more packed.
  Dictionary (*unpack)(const Packed& packed);
};

}  // namespace larkspan::platform

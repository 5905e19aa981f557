#pragma once

#include "larkspan/platform/base/KeyList.h"
#include "larkspan/platform/base/Slice.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace larkspan::platform {

class Value;

/// Text keys to values, in the order in which the keys were first set. Meant for the small dictionaries of
/// messages: a list of keys, shared between dictionaries made alike (`KeyList`), and a list of values, searched from
/// the front. A value: copies share their storage until one of them is changed (copy on write). One that came from
/// another process may keep its entries in their encoded form: a look-up then decodes the one value that it finds, and
/// the first iteration or change all of them.
/// Thread: as std::vector; copies may be used from different threads.
class Dictionary {
 public:
  struct Entry;
  class Iterator;
  struct NewEntry;
  struct PackedCoding;
  /// Entries that are encoded still, their keys well-formed and different and their values sound.
  struct Packed {
    Slice bytes;  ///< A map.
    const PackedCoding* coding;
    uint64_t keyBits;   ///< See `keyBit`.
    uint32_t entries;   ///< Not 0.
    uint32_t elements;  ///< Of the encoded form, all in all.
    uint8_t levels;     ///< Of nesting in it.
  };

  Dictionary() noexcept = default;
  Dictionary(const Dictionary& other) noexcept;
  Dictionary(Dictionary&& other) noexcept : storage_(std::exchange(other.storage_, nullptr)) {}
  Dictionary& operator=(Dictionary other) noexcept {
    std::swap(storage_, other.storage_);
    return *this;
  }
  ~Dictionary();
  /// Room for `capacity` entries, taken at once.
  static Dictionary withCapacity(std::size_t capacity);
  Dictionary(std::initializer_list<NewEntry> entries);
  /// One value for each of the keys: for decoders.
  Dictionary(KeyList keys, std::vector<Value> values);
  /// A dictionary that reads its entries when somebody asks: for decoders.
  explicit Dictionary(Packed packed);

  std::size_t size() const;
  bool empty() const { return size() == 0; }
  bool contains(std::string_view key) const;
  /// The value under the key, or none.
  Value get(std::string_view key) const;

  /// Stores under the key, in place when the key is there already. A none value is stored like any other.
  void set(Key key, Value value);
  /// The same with a key that is copied; malformed UTF-8 in it is repaired (U+FFFD).
  void set(std::string_view key, Value value);
  void set(const char* key, Value value);
  /// Appends an entry whose key is known to be well-formed and not present: for decoders.
  void append(Slice key, Value value);
  /// Removes the key if it is there.
  void remove(std::string_view key);

  Iterator begin() const;
  Iterator end() const;
  const KeyList& keys() const;
  /// In the order of the keys.
  std::span<const Value> values() const;

  /// A copy that shares no array, dictionary or item with this one.
  Dictionary deepCopy() const;
  /// Tells copies apart: equal exactly while two dictionaries share their storage; null for one never
  /// written.
  const void* storage() const { return storage_; }
  std::size_t capacity() const;
  /// The entries as they came, unless they have been changed since; else null. For encoders, which may copy them.
  const Packed* packed() const;
  struct Plain {
    const KeyList* keys = nullptr;
    std::span<const Value> values{};
  };
  /// Keys and values at one look, for encoders that go through many dictionaries; neither of one that is `packed` or was
  /// never written.
  Plain plain() const;
  std::string description() const;

  /// Equal entries, in any order.
  friend bool operator==(const Dictionary& a, const Dictionary& b);

 private:
  struct Storage;
  Storage& writable();
  Storage& unpacked() const;
  const Packed* unread() const;
  template <typename AnyKey>
  void put(const AnyKey& key, Value value);
  Storage* storage_ = nullptr;
};

/// The entries by key, for comparisons; they point into the dictionary.
std::vector<std::pair<std::string_view, const Value*>> sortedEntries(const Dictionary& dictionary);

}  // namespace larkspan::platform

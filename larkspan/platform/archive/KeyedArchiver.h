#pragma once

#include "larkspan/platform/archive/ArchiveError.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/archive/MessageCost.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/base/Value.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <typeinfo>

namespace larkspan::platform {

struct ColumnLayout;

class Archivable;
/// Whether the reader knows tables.
enum class Tables : bool { no, yes };

/// Writes values and objects as CBOR (RFC 8949): numbers, text, bytes, arrays and maps as they are, dates,
/// URLs, sets and objects under their `CborTag`. An error is the object "Error" with the keys "domain",
/// "code" and "userInfo"; objects in its user information are written as their descriptions, so that no error
/// is lost over what decorates it. Objects get one to write their fields to, each key once, in any order:
/// this is what `encode…` is for. Neighbours in an array that are objects of a `RowClass` with the same keys are
/// written as a table where the reader knows tables: see `Table` in ValueCoding.h.
/// Thread:  one at a time.
/// Failure: the first one makes the whole archive fail: an object that is not `Archivable`, or what exceeds
///          the limits.
/// Limits:  `limits::kMaximumFrame`, `kMaximumDepth`, `kMaximumElements`; those of tables are `KeyedUnarchiver`'s.
class KeyedArchiver {
 public:
  struct Result {
    Data data;
    /// With empty data.
    std::optional<Error> error;
  };
  /// An archive of the value.
  static Result archivedData(const Value& root);

  /// None leaves the key out.
  void encodeObject(const Value& value, std::string_view key);
  void encodeInteger(int64_t value, std::string_view key) { encodeInt64(value, key); }
  void encodeInt64(int64_t value, std::string_view key);
  void encodeBool(bool value, std::string_view key);
  /// In 64 bits.
  void encodeDouble(double value, std::string_view key);
  /// In 32 bits.
  void encodeFloat(float value, std::string_view key);

 private:
  friend std::optional<Error> encodeValue(CborWriter& writer, const Value& value, unsigned depth,
                                          Tables tables, MessageCost* cost);
  KeyedArchiver(CborWriter& writer, Tables tables, unsigned depth)
      : writer_(writer), tables_(tables), depth_(depth) {}

  void write(const Value& value);
  bool writeFlat(const Value& value);
  void writeText(std::string_view text);
  void writeArray(const Array& array);
  void writeDictionary(const Dictionary& dictionary);
  void writeError(const Error& error);
  void writeObject(const Object& object);
  const Archivable* archivableOf(const Object& object);
  /// Members of an array: objects that are no values yet, or values.
  struct Neighbours {
    const PackedMembers* packed;
    std::span<const Value> values{};

    std::size_t size() const { return packed ? packed->size() : values.size(); }
    /// Null for a value that is no object.
    const Object* object(std::size_t index) const {
      if (packed) return packed->object(index).get();
      const auto* const object = values[index].contentAs<std::shared_ptr<Object>>();
      return object ? object->get() : nullptr;
    }
  };
  std::size_t writeNeighbours(const Neighbours& members);
  std::size_t writeTable(const Neighbours& members, std::size_t start);
  void writeColumn(const ColumnLayout& layout, std::span<const Value* const> rows, std::size_t index);
  void writeField(std::string_view key, const Value& value);
  void writeEntry(std::string_view key, const Value& value);
  /// Whether this many bytes more keep within the limits; fails else.
  bool hasRoom(std::size_t bytes) {
    const bool fits = std::max({cost_.bytes + writer_.size() + bytes, cost_.repeated, cost_.prefixes}) <=
                          limits::kMaximumFrame &&
                      std::max(cost_.elements + writer_.elements(), cost_.cells) <= limits::kMaximumElements;
    return fits ? !error_ : overflows(bytes);
  }
  bool overflows(std::size_t bytes);
  bool enter(unsigned levels);
  void fail(ArchiveErrorCode code, std::string_view fault);

  CborWriter& writer_;
  const Tables tables_;
  /// Containers and tags open around the next item.
  unsigned depth_;
  /// Of the object that is being written.
  std::size_t fields_ = 0;
  bool withinError_ = false;
  /// Of the message's earlier frames, and of the tables so far.
  MessageCost cost_;
  /// Of the object written last.
  const std::type_info* archivableType_ = nullptr;
  std::optional<Error> error_;
};

}  // namespace larkspan::platform

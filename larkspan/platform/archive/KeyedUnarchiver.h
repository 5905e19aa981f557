#pragma once

#include "larkspan/platform/archive/ArchiveError.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/archive/ClassSet.h"
#include "larkspan/platform/archive/MessageCost.h"
#include "larkspan/platform/archive/WellFormed.h"
#include "larkspan/platform/base/Value.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace larkspan::platform {

struct TableColumn;

/// Reads what `KeyedArchiver` writes, and makes only what the reader's class sets admit. The decode function
/// of an object's class gets one to read its fields from, in any order; reading in the order of writing is
/// fastest. Fields nobody asks for are passed over.
/// Thread:  one at a time; decode functions run on the thread that unarchives.
/// Failure: the first one makes the whole archive fail; what is read after it is none or 0.
/// Limits:  as `checkWellFormed`; the rows of tables have `limits::kMaximumElements` values at most. Those that stand there
///          once for many rows would take `limits::kMaximumFrame` bytes at most, and so would what texts begin with.
class KeyedUnarchiver {
 public:
  struct Result {
    Value value;
    /// With a none value.
    std::optional<Error> error;
  };
  /// The value of an archive. Large parts of it share the archive's bytes: see `kSharedLength` in ValueCoding.h.
  static Result unarchivedValue(const Data& archive, const ClassSet& classes);

  /// The value at the reader, which is part of a plain map in `frame`, and passes it.
  static Value plainValue(const Slice& frame, CborReader& reader);

  template <typename T>
  struct ObjectResult {
    /// Null with an error.
    std::shared_ptr<T> object;
    std::optional<Error> error;
  };
  /// The object of an archive that holds an object of class T and nothing else.
  template <typename T>
  static ObjectResult<T> unarchivedObject(const Data& archive) {
    Result result = unarchivedValue(archive, ClassSet().with<T>());
    auto object = result.value.template objectOf<T>();
    if (!object && !result.error) {
      result.error = archiveError(ArchiveErrorCode::forbiddenClass, "The archive holds no object");
    }
    return {std::move(object), std::move(result.error)};
  }

  bool containsValue(std::string_view key) { return find(key); }
  /// 0 when the key is absent or holds no number, as do the other decoders of numbers. Numbers convert as
  /// those of `Value`.
  int64_t decodeInteger(std::string_view key) { return decodeNumber(key).integerValue(); }
  int64_t decodeInt64(std::string_view key) { return decodeNumber(key).integerValue(); }
  bool decodeBool(std::string_view key) { return decodeNumber(key).boolValue(); }
  double decodeDouble(std::string_view key) { return decodeNumber(key).doubleValue(); }
  float decodeFloat(std::string_view key) { return static_cast<float>(decodeNumber(key).doubleValue()); }
  /// None when the key is absent. These classes alone are admitted there, whatever is admitted around the
  /// object; any other class fails the archive.
  Value decodeObject(std::string_view key, const ClassSet& classes);
  /// Makes the archive fail for a reason of the class's own.
  void fail(Error error);

 private:
  friend Result decodeValue(const Slice& frame, CborReader& reader, const ClassSet& classes,
                            std::span<const PlainMap> plainMaps, MessageCost* cost);

  enum class Place { outermost, within };
  struct Field {
    std::string_view key;
    std::size_t position;
  };
  /// The object being read. Its map is walked as its fields are asked for, and no part of it twice but for
  /// fields asked for in another order than they stand.
  struct ObjectState {
    /// Where this object's part of `passed_` begins.
    std::size_t firstPassed = 0;
    /// Where the walk stands: at a key, or at the value of the field passed last.
    std::size_t walk = 0;
    bool walkAtValue = false;
    uint64_t fieldsLeft = 0;
  };

  KeyedUnarchiver(const Slice& frame, std::size_t position, std::span<const PlainMap> plainMaps);

  Value read(const ClassSet& classes, Place place);
  Array readArray(uint64_t size, const ClassSet& classes);
  const PlainMap* plainAt(std::size_t start);
  Slice bytesOf(const PlainMap& map);
  Value readMap(uint64_t size, const ClassSet& classes, std::size_t start);
  Value readTagged(uint64_t tag, const ClassSet& classes, std::size_t start);
  Value readObject(const ClassSet& classes, std::size_t start, std::vector<Value>* members);
  Value readError();
  Dictionary readDictionary(uint64_t size, const ClassSet& classes);
  void readTable(const ClassSet& classes, std::vector<Value>& members, std::size_t start);
  std::vector<Slice> readTableKeys();
  bool readColumn(TableColumn& column, std::size_t rows, const ClassSet& classes);
  Value readFlat(const ClassSet& classes);
  Value readFound(const ClassSet& classes);
  void notePassed(std::size_t start);
  Value decodeNumber(std::string_view key);
  bool find(std::string_view key);
  void passRest();
  Value fault(ArchiveErrorCode code, std::string_view text, std::size_t offset);
  Value forbidden(std::string_view what, std::size_t offset);

  const Slice& frame_;
  CborReader reader_;
  /// Those that the reader has not come to yet.
  std::span<const PlainMap> plainMaps_;
  /// A copy of the frame from `runStart_` on.
  Slice run_;
  std::size_t runStart_ = 0;
  /// All that comes is part of a plain map.
  bool isPlain_ = false;
  /// The array that is being read has members that stay packed.
  bool hasPacked_ = false;
  /// Of the tables so far.
  MessageCost cost_;
  std::optional<Error> error_;
  ObjectState object_;
  /// The fields that the walks have passed, of all objects under way, the innermost last.
  std::vector<Field> passed_;
};

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/archive/ClassSet.h"
#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "larkspan/platform/base/Value.h"

#include <cstddef>
#include <optional>

/// Values within frames: the same form as in archives, with the frame around them left to the caller.
namespace larkspan::platform {

/// Strings, data and plain maps of this many bytes or more share the block they arrived in, and so does all of a
/// frame that is smaller. What is shorter is copied, so that a value which is kept does not keep a whole frame, and so are
/// texts and URLs of a column with a prefix.
inline constexpr std::size_t kSharedLength = 4096;

/// Text or data out of the frame: a copy of what is short and would keep a larger block.
inline Slice sharedPart(const Slice& frame, std::string_view content) {
  if (content.size() < kSharedLength && frame.blockSize() >= kSharedLength) return Slice::copy(content);
  return frame.part(static_cast<std::size_t>(content.data() - frame.data()), content.size());
}

/// The class name of an error in tag 27.
inline constexpr std::string_view kErrorClassName = "Error";

/// How neighbours in an array are written that are objects of one `RowClass` with the same keys, in the same order:
/// tag 27, ["Table", {"class": their class, "keys": [key, …], "rows": count, "columns": [column, …]}]. It stands for as
/// many members of the array as it has rows. A column is an array that begins with its form, the name at that index of
/// `kForms`, and holds the values that all rows have under one key:
///
///     ["same", value]                         the one that each has
///     ["values", [value, …]]
///     ["integers", bytes]                     two's complement
///     ["texts", prefix, bytes, text]          what all begin with, the length of what follows it in each, and that, one
///                                             behind the other
///     ["urls", prefix, bytes, text]           as texts
///     ["dates", bytes, bytes]                 seconds since 1970 as integers, and nanoseconds
///
/// A byte string has 1, 2, 4 or 8 bytes for each row, the same for all, most significant first; lengths and nanoseconds, up
/// to 999,999,999, are unsigned. No value is a container, error or object.
struct Table {
  static constexpr std::string_view kName = "Table";
  static constexpr std::string_view kClass = "class";
  static constexpr std::string_view kKeys = "keys";
  static constexpr std::string_view kRows = "rows";
  static constexpr std::string_view kColumns = "columns";
  /// In the order of `TableColumn::Form`, which has one more.
  static constexpr std::string_view kForms[] = {"same", "values", "integers", "texts", "urls", "dates"};
  /// How many members follow the form in its column.
  static constexpr std::size_t kContents[] = {1, 1, 1, 3, 3, 2};
  /// So that, with the limit on values in rows, tables stand for no more objects than plain ones could.
  static constexpr std::size_t kFewestKeys = 4;
  /// That the library writes: as many as stay in a processor's cache while each column goes through them again.
  static constexpr std::size_t kMostRows = 512;
};

/// Appends the value. On failure, as `KeyedArchiver`, nothing has been appended. The limits hold for what the writer has
/// written and what `cost` holds, together; what the value's tables take is added to `cost`. `depth` is how many containers
/// and tags the caller has open around the value.
std::optional<Error> encodeValue(CborWriter& writer, const Value& value, unsigned depth = 0,
                                 Tables tables = Tables::no, MessageCost* cost = nullptr);

/// Reads the value at the reader and passes it. The reader stands over the whole of `frame`, which
/// `checkWellFormed` has passed; the dictionaries of the plain maps that it found stay encoded until somebody asks for
/// their entries. The tables of the value are added to `cost`. After an error the reader's place is undefined.
KeyedUnarchiver::Result decodeValue(const Slice& frame, CborReader& reader, const ClassSet& classes,
                                    std::span<const PlainMap> plainMaps = {}, MessageCost* cost = nullptr);

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/base/Slice.h"
#include "larkspan/platform/base/Value.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace larkspan::platform {

struct ObjectClass;

/// The values that the rows of a table have under one key; those that are many stay in the frame.
struct TableColumn {
  /// `booleans` are `values` all of which are booleans, and so have one byte each.
  enum class Form : uint8_t { same, values, integers, texts, urls, dates, booleans };

  Form form = Form::values;
  // Places in the frame, which the rows keep.
  /// Where the integers, the text, the seconds or the booleans begin.
  std::size_t first = 0;
  /// Where the nanoseconds begin.
  std::size_t second = 0;
  /// Bytes of an integer or seconds, and of nanoseconds.
  unsigned width = 0;
  unsigned nanosecondWidth = 0;
  /// What all texts or URLs begin with.
  std::string_view prefix{};
  /// Where the rest of each ends, counted from `first`.
  std::vector<uint32_t> ends;
  /// One for each row, or the one that all have.
  std::vector<Value> values;

  Value at(const Slice& frame, std::size_t row) const;
  /// Of `integers`, or the seconds of `dates`.
  int64_t integerAt(const Slice& frame, std::size_t row) const;
  /// Of `booleans`.
  bool booleanAt(const Slice& frame, std::size_t row) const;
  Date dateAt(const Slice& frame, std::size_t row) const;
  /// Of `texts` and `urls`: what follows the prefix.
  std::string_view restAt(const Slice& frame, std::size_t row) const;
  /// Of `texts` and `urls`: the whole, which shares the frame if it is long.
  Slice textAt(const Slice& frame, std::size_t row) const;
};

/// The objects of a table, in its columns: each is made when somebody asks for it. A list of many thousands so costs
/// little more than its bytes.
/// Owner:  std::shared_ptr. It keeps all of the frame, and each object that was made; an object keeps
///         what its values do: see `kSharedLength` in ValueCoding.h.
/// Thread: any. An object that was made is not to be changed while its row is read.
class TableRows final : public PackedMembers {
 public:
  /// The columns were found sound, one for each of the keys, which differ, with as many values as there are rows.
  TableRows(const ObjectClass& objectClass, Slice frame, KeyList keys, std::vector<TableColumn> columns,
            std::size_t rows);

  const ObjectClass& objectClass() const { return objectClass_; }
  std::size_t size() const override { return rows_; }
  /// What the row's object has in its dictionary under the key, or none.
  Value get(std::size_t row, std::string_view key) const;
  Value get(std::size_t row, const Key& key) const;
  // The same as the getters of `Value` for that, quicker for columns of their kind.
  int64_t integer(std::size_t row, const Key& key, int64_t absent) const {
    return lacks(key) ? absent : integerInColumn(row, key, absent);
  }
  bool boolean(std::size_t row, const Key& key) const;
  std::optional<std::string> string(std::size_t row, const Key& key) const;
  std::optional<Date> date(std::size_t row, const Key& key) const;
  std::optional<URL> url(std::size_t row, const Key& key) const;
  /// The row's object, the same each time.
  const std::shared_ptr<Object>& object(std::size_t row) const override;

 private:
  Object* madeObject(std::size_t row) const;
  /// Whether it is plain that no row has the key.
  bool lacks(const Key& key) const {
    return columnAt_[placeOf(key.bit())] == kFree && isPlaced_ && !anyMade_.load(std::memory_order_acquire);
  }
  std::size_t indexOf(const Key& key) const;
  const TableColumn* columnOf(const Key& key) const;
  Value get(const TableColumn* column, std::size_t row, const Key& key) const;
  int64_t integerInColumn(std::size_t row, const Key& key, int64_t absent) const;

  const ObjectClass& objectClass_;
  const Slice frame_;
  const KeyList keys_;
  const std::span<const Slice> names_;  // Of the keys.
  const std::vector<TableColumn> columns_;
  const std::size_t rows_;
  static constexpr std::size_t kPlaces = 64;
  static constexpr uint8_t kFree = UINT8_MAX;
  static std::size_t placeOf(uint64_t keyBit) { return static_cast<std::size_t>(std::countr_zero(keyBit)); }
  /// Where the columns of the keys are: the place of a key is that of its bit or, if others have it, the next. All are free in
  /// a table of many columns.
  std::array<uint8_t, kPlaces> columnAt_;
  const bool isPlaced_;

  mutable std::atomic<bool> anyMade_{false};
  mutable std::mutex mutex_;
  mutable std::vector<std::shared_ptr<Object>> made_;  // Empty, or one for each row.
};

}  // namespace larkspan::platform

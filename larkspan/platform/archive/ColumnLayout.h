#pragma once

#include "larkspan/platform/archive/TableRows.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Value.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace larkspan::platform {

/// The values of a column (`Table` in ValueCoding.h), taken out of their rows, and how they are best written.
struct ColumnLayout {
  TableColumn::Form form = TableColumn::Form::values;
  /// Bytes that each row's integer, length, seconds or boolean take.
  std::size_t width = 0;
  /// Bytes that each row's nanoseconds take.
  std::size_t nanosecondWidth = 0;
  /// What all texts begin with, which points into the first; empty where one has `kSharedLength` bytes or more, which readers
  /// then share with the frame.
  std::string_view prefix{};
  /// Bytes of all that follows it.
  std::size_t rest = 0;

  /// One for each row: integers or seconds, nanoseconds, and whole texts, as the form says.
  std::array<int64_t, Table::kMostRows> integers;
  std::array<uint32_t, Table::kMostRows> nanoseconds;
  std::array<std::string_view, Table::kMostRows> texts;

  /// Takes the values with that index; a row stands for its first. There is one at least and `kMostRows` at most, and none is
  /// a container, error or object.
  void take(std::span<const Value* const> rows, std::size_t index);

  /// Bytes of its texts and byte strings, without their heads.
  std::size_t size(std::size_t rows) const { return prefix.size() + (width + nanosecondWidth) * rows + rest; }
};

}  // namespace larkspan::platform

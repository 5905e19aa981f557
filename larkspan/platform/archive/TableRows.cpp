#include "larkspan/platform/archive/TableRows.h"

#include "larkspan/platform/archive/Archivable.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/archive/ValueCoding.h"

#include <utility>

namespace larkspan::platform {

inline int64_t TableColumn::integerAt(const Slice& frame, std::size_t row) const {
  return detail::loadSigned(frame.data() + first + width * row, width);
}

inline std::string_view TableColumn::restAt(const Slice& frame, std::size_t row) const {
  const std::size_t start = row == 0 ? 0 : ends[row - 1];
  return {frame.data() + first + start, ends[row] - start};
}

Value TableColumn::at(const Slice& frame, std::size_t row) const {
  const auto text = [&] {
    const std::string_view rest = restAt(frame, row);
    if (prefix.empty()) return sharedPart(frame, rest);
    char* to = nullptr;
    Slice whole = Slice::allocate(prefix.size() + rest.size(), to);
    detail::copyBytes(to, prefix);
    detail::copyBytes(to + prefix.size(), rest);
    return whole;
  };
  switch (form) {
    case Form::same:
      return values.front();
    case Form::values:
      return values[row];
    case Form::integers:
      return integerAt(frame, row);
    case Form::booleans:
      return frame.data()[first + row] == Table::kTrue;
    case Form::texts:
      return Value::wellFormed(text());
    case Form::urls:
      return URL::wellFormed(text());
    case Form::dates:
      return Date{integerAt(frame, row),
                  static_cast<uint32_t>(
                      detail::loadBigEndian(frame.data() + second + nanosecondWidth * row, nanosecondWidth))};
  }
  return {};
}

TableRows::TableRows(const ObjectClass& objectClass, Slice frame, KeyList keys,
                     std::vector<TableColumn> columns, std::size_t rows)
    : objectClass_(objectClass),
      frame_(std::move(frame)),
      keys_(std::move(keys)),
      columns_(std::move(columns)),
      rows_(rows) {
  for (const Slice& key : keys_.keys()) keyBits_ |= keyBit(key.view());
}

/// Null as long as nobody has asked for it.
Object* TableRows::madeObject(std::size_t row) const {
  if (!anyMade_.load(std::memory_order_acquire)) return nullptr;
  const std::lock_guard lock(mutex_);
  return made_[row].get();
}

Value TableRows::inColumn(std::size_t row, std::string_view key) const {
  const std::size_t column = keys_.find(key);
  return column == KeyList::kNone ? Value() : columns_[column].at(frame_, row);
}

Value TableRows::get(std::size_t row, std::string_view key) const {
  const auto* const made = static_cast<const Archivable*>(madeObject(row));
  return made ? made->row()->get(key) : inColumn(row, key);
}

int64_t TableRows::integerOf(std::size_t row, std::string_view key, int64_t absent) const {
  return get(row, key).integerOr(absent);
}

int64_t TableRows::integerInColumn(std::size_t row, std::string_view key, int64_t absent) const {
  const std::size_t column = keys_.find(key);
  if (column == KeyList::kNone) return absent;
  if (columns_[column].form != TableColumn::Form::integers)
    return columns_[column].at(frame_, row).integerOr(absent);
  return columns_[column].integerAt(frame_, row);
}

std::optional<std::string> TableRows::string(std::size_t row, const Key& key) const {
  const bool isInColumn = !anyMade_.load(std::memory_order_acquire) && (keyBits_ & key.bit()) != 0;
  const std::size_t index = isInColumn ? keys_.find(key) : KeyList::kNone;
  if (index == KeyList::kNone || columns_[index].form != TableColumn::Form::texts)
    return get(row, key).string();
  const TableColumn& column = columns_[index];
  const std::string_view rest = column.restAt(frame_, row);
  std::optional<std::string> text(std::in_place);
  text->reserve(column.prefix.size() + rest.size());
  text->append(column.prefix).append(rest);
  return text;
}

const std::shared_ptr<Object>& TableRows::object(std::size_t row) const {
  const std::lock_guard lock(mutex_);
  if (made_.empty()) {
    made_.resize(rows_);
    anyMade_.store(true, std::memory_order_release);
  }
  std::shared_ptr<Object>& object = made_[row];
  if (!object) {
    std::vector<Value> values;
    values.reserve(columns_.size());
    for (const TableColumn& column : columns_) values.push_back(column.at(frame_, row));
    object = objectClass_.rows->make({keys_, std::move(values)});
  }
  return object;
}

}  // namespace larkspan::platform

#include "larkspan/platform/archive/TableRows.h"

#include "larkspan/platform/archive/Archivable.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/archive/ValueCoding.h"

#include <utility>

namespace larkspan::platform {

namespace {

using Form = TableColumn::Form;

}  // namespace

inline int64_t TableColumn::integerAt(const Slice& frame, std::size_t row) const {
  return detail::loadSigned(frame.data() + first + width * row, width);
}

inline bool TableColumn::booleanAt(const Slice& frame, std::size_t row) const {
  return static_cast<uint8_t>(frame.data()[first + row]) == kCborTrue;
}

inline Date TableColumn::dateAt(const Slice& frame, std::size_t row) const {
  const char* const nanoseconds = frame.data() + second + nanosecondWidth * row;
  return {integerAt(frame, row), static_cast<uint32_t>(detail::loadBigEndian(nanoseconds, nanosecondWidth))};
}

inline std::string_view TableColumn::restAt(const Slice& frame, std::size_t row) const {
  const std::size_t start = row == 0 ? 0 : ends[row - 1];
  return {frame.data() + first + start, ends[row] - start};
}

Slice TableColumn::textAt(const Slice& frame, std::size_t row) const {
  const std::string_view rest = restAt(frame, row);
  if (prefix.empty()) return sharedPart(frame, rest);
  char* to = nullptr;
  Slice whole = Slice::allocate(prefix.size() + rest.size(), to);
  detail::copyBytes(to, prefix);
  detail::copyBytes(to + prefix.size(), rest);
  return whole;
}

Value TableColumn::at(const Slice& frame, std::size_t row) const {
  switch (form) {
    case Form::same:
      return values.front();
    case Form::values:
      return values[row];
    case Form::integers:
      return integerAt(frame, row);
    case Form::texts:
      return Value::wellFormed(textAt(frame, row));
    case Form::urls:
      return URL::wellFormed(textAt(frame, row));
    case Form::dates:
      return dateAt(frame, row);
    case Form::booleans:
      return booleanAt(frame, row);
  }
  return {};
}

TableRows::TableRows(const ObjectClass& objectClass, Slice frame, KeyList keys,
                     std::vector<TableColumn> columns, std::size_t rows)
    : objectClass_(objectClass),
      frame_(std::move(frame)),
      keys_(std::move(keys)),
      names_(keys_.keys()),
      columns_(std::move(columns)),
      rows_(rows),
      isPlaced_(columns_.size() <= kPlaces / 2) {
  columnAt_.fill(kFree);
  for (std::size_t i = 0; isPlaced_ && i < columns_.size(); ++i) {
    std::size_t place = placeOf(keyBit(names_[i].view()));
    while (columnAt_[place] != kFree) place = (place + 1) % kPlaces;
    columnAt_[place] = static_cast<uint8_t>(i);
  }
}

/// Null as long as nobody has asked for it.
Object* TableRows::madeObject(std::size_t row) const {
  if (!anyMade_.load(std::memory_order_acquire)) return nullptr;
  const std::lock_guard lock(mutex_);
  return made_[row].get();
}

/// Where the column of the key is, or `KeyList::kNone`.
inline std::size_t TableRows::indexOf(const Key& key) const {
  const std::string_view text = key;
  if (!isPlaced_) return keys_.find(text);
  for (std::size_t place = placeOf(key.bit()); columnAt_[place] != kFree; place = (place + 1) % kPlaces) {
    const std::string_view name = names_[columnAt_[place]].view();
    // Mostly it is one text in both places, which takes no look at it.
    if (name.size() == text.size() && (name.data() == text.data() || name == text)) return columnAt_[place];
  }
  return KeyList::kNone;
}

/// The column of the key; null if there is none, and once an object was made, which may be changed.
inline const TableColumn* TableRows::columnOf(const Key& key) const {
  if (anyMade_.load(std::memory_order_acquire)) return nullptr;
  const std::size_t index = indexOf(key);
  return index == KeyList::kNone ? nullptr : &columns_[index];
}

Value TableRows::get(std::size_t row, std::string_view key) const {
  if (const auto* const made = static_cast<const Archivable*>(madeObject(row))) return made->row()->get(key);
  const std::size_t index = keys_.find(key);
  return index == KeyList::kNone ? Value() : columns_[index].at(frame_, row);
}

inline Value TableRows::get(const TableColumn* column, std::size_t row, const Key& key) const {
  if (column) return column->at(frame_, row);
  return lacks(key) ? Value() : get(row, std::string_view(key));
}

Value TableRows::get(std::size_t row, const Key& key) const { return get(columnOf(key), row, key); }

int64_t TableRows::integerInColumn(std::size_t row, const Key& key, int64_t absent) const {
  const TableColumn* const column = columnOf(key);
  return column && column->form == Form::integers ? column->integerAt(frame_, row)
                                                  : get(column, row, key).integerOr(absent);
}

bool TableRows::boolean(std::size_t row, const Key& key) const {
  const TableColumn* const column = columnOf(key);
  return column && column->form == Form::booleans ? column->booleanAt(frame_, row)
                                                  : get(column, row, key).boolValue();
}

std::optional<std::string> TableRows::string(std::size_t row, const Key& key) const {
  const TableColumn* const column = columnOf(key);
  if (column && column->form == Form::same) return column->values.front().string();
  if (!column || column->form != Form::texts) return get(column, row, key).string();
  const std::string_view rest = column->restAt(frame_, row);
  if (column->prefix.empty()) return std::string(rest);
  std::optional<std::string> text(std::in_place);
  text->reserve(column->prefix.size() + rest.size());
  text->append(column->prefix).append(rest);
  return text;
}

std::optional<Date> TableRows::date(std::size_t row, const Key& key) const {
  const TableColumn* const column = columnOf(key);
  return column && column->form == Form::dates ? column->dateAt(frame_, row) : get(column, row, key).date();
}

std::optional<URL> TableRows::url(std::size_t row, const Key& key) const {
  const TableColumn* const column = columnOf(key);
  return column && column->form == Form::urls ? URL::wellFormed(column->textAt(frame_, row))
                                              : get(column, row, key).url();
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

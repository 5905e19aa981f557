#include "larkspan/platform/archive/TableRows.h"

#include "larkspan/platform/archive/Archivable.h"
#include "larkspan/platform/archive/PackedDictionary.h"

#include <utility>

namespace larkspan::platform {

TableRows::TableRows(const ObjectClass& objectClass, Slice frame,
                     std::shared_ptr<const std::vector<Slice>> keys, std::span<const PlainRun> rows)
    : objectClass_(objectClass), frame_(std::move(frame)), keys_(std::move(keys)) {
  for (const Slice& key : *keys_) keyBits_ |= keyBit(key.view());
  rows_.reserve(rows.size());
  for (const PlainRun& row : rows) rows_.push_back({row.start, row.end, row.elements, row.levels});
}

/// Null as long as nobody has asked for it.
Object* TableRows::madeObject(std::size_t row) const {
  if (!anyMade_.load(std::memory_order_acquire)) return nullptr;
  const std::lock_guard lock(mutex_);
  return made_[row].get();
}

Value TableRows::get(std::size_t row, std::string_view key) const {
  if (const auto* const made = static_cast<const Archivable*>(madeObject(row))) return made->row()->get(key);
  return (keyBits_ & keyBit(key)) == 0 ? Value() : valueInRow(frame_, rows_[row].start, *keys_, key);
}

std::shared_ptr<Object> TableRows::object(std::size_t row) const {
  const std::lock_guard lock(mutex_);
  if (made_.empty()) {
    made_.resize(rows_.size());
    anyMade_.store(true, std::memory_order_release);
  }
  std::shared_ptr<Object>& object = made_[row];
  if (!object) {
    const Row& from = rows_[row];
    object = objectClass_.rows->make(packedRow(frame_.part(from.start, from.end - from.start), from.elements,
                                               from.levels, keys_, keyBits_));
  }
  return object;
}

void TableRows::unpack(std::vector<Value>& members) const {
  for (std::size_t row = 0; row < rows_.size(); ++row) members.emplace_back(object(row));
}

}  // namespace larkspan::platform

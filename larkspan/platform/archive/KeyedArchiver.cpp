#include "larkspan/platform/archive/KeyedArchiver.h"

#include "larkspan/platform/archive/Archivable.h"
#include "larkspan/platform/archive/ColumnLayout.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/base/Utf8.h"

#include <algorithm>
#include <array>
#include <string>
#include <typeinfo>
#include <utility>

namespace larkspan::platform {

namespace {

/// A tag, its array, a map, the array of columns, a column and the array of its values.
constexpr unsigned kTableDepth = 6;
/// A date.
constexpr unsigned kFlatDepth = 2;

using Form = TableColumn::Form;

/// No container, error or object.
bool isFlat(const Value& value) { return value.kind() <= Value::Kind::url; }

bool hasSameKeys(const KeyList& a, const KeyList& b) {
  return a.isSameAs(b) || std::ranges::equal(a.keys(), b.keys());
}

}  // namespace

KeyedArchiver::Result KeyedArchiver::archivedData(const Value& root) {
  ByteBuffer bytes = Slice::emptyBuffer();
  CborWriter writer(bytes);
  if (auto error = encodeValue(writer, root, 0, Tables::yes)) return {{}, std::move(error)};
  return {Data{Slice::adopt(std::move(bytes))}, std::nullopt};
}

std::optional<Error> encodeValue(CborWriter& writer, const Value& value, unsigned depth, Tables tables,
                                 MessageCost* cost) {
  const CborWriter::Mark start = writer.mark();
  KeyedArchiver archiver(writer, tables, depth);
  if (cost) archiver.cost_ = *cost;
  archiver.write(value);
  if (cost) *cost = archiver.cost_;
  if (archiver.error_) writer.rewind(start);
  return std::move(archiver.error_);
}

void KeyedArchiver::encodeObject(const Value& value, std::string_view key) {
  if (!value.isNone()) writeField(key, value);
}

void KeyedArchiver::encodeInt64(int64_t value, std::string_view key) { writeField(key, value); }
void KeyedArchiver::encodeBool(bool value, std::string_view key) { writeField(key, value); }
void KeyedArchiver::encodeDouble(double value, std::string_view key) { writeField(key, value); }
void KeyedArchiver::encodeFloat(float value, std::string_view key) { writeField(key, value); }

void KeyedArchiver::writeField(std::string_view key, const Value& value) {
  ++fields_;
  writeEntry(key, value);
}

void KeyedArchiver::writeEntry(std::string_view key, const Value& value) {
  writeText(key);
  write(value);
}

inline void KeyedArchiver::writeText(std::string_view text) {
  if (hasRoom(text.size())) writer_.text(text);
}

/// Writes a value that is no container, nor an error or object; false, with nothing written, for these. The caller sees
/// to the depth, which is `kFlatDepth` at most.
inline bool KeyedArchiver::writeFlat(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::none:
      writer_.null();
      return true;
    case Value::Kind::boolean:
      writer_.boolean(*value.contentAs<bool>());
      return true;
    case Value::Kind::integer:
      writer_.integer(*value.contentAs<int64_t>());
      return true;
    case Value::Kind::float32:
      writer_.float32(*value.contentAs<float>());
      return true;
    case Value::Kind::float64:
      writer_.float64(*value.contentAs<double>());
      return true;
    case Value::Kind::string:
      writeText(value.contentAs<Slice>()->view());
      return true;
    case Value::Kind::data:
      if (const Slice& bytes = value.contentAs<Data>()->bytes; hasRoom(bytes.size()))
        writer_.bytes(bytes.view());
      return true;
    case Value::Kind::date:
      writer_.date(value.contentAs<Date>()->seconds, value.contentAs<Date>()->nanoseconds);
      return true;
    case Value::Kind::url:
      writer_.tag(CborTag::uri);
      writeText(value.contentAs<URL>()->absoluteString());
      return true;
    default:
      return false;
  }
}

void KeyedArchiver::write(const Value& value) {
  if (error_) return;
  const unsigned levels = value.kind() == Value::Kind::date ? 2 : value.kind() == Value::Kind::url ? 1 : 0;
  if (levels > 0 && !enter(levels)) return;
  depth_ -= levels;
  if (writeFlat(value)) {
    hasRoom(0);
    return;
  }
  switch (value.kind()) {
    case Value::Kind::array:
      writeArray(*value.contentAs<Array>());
      break;
    case Value::Kind::set:
      if (!enter(1)) break;
      writer_.tag(CborTag::set);
      writeArray(value.contentAs<Set>()->members());
      depth_ -= 1;
      break;
    case Value::Kind::dictionary:
      writeDictionary(*value.contentAs<Dictionary>());
      break;
    case Value::Kind::error:
      writeError(*value.contentAs<Error>());
      break;
    case Value::Kind::object:
      writeObject(**value.contentAs<std::shared_ptr<Object>>());
      break;
    default:
      break;
  }
  hasRoom(0);
}

void KeyedArchiver::writeArray(const Array& array) {
  if (!enter(1)) return;
  const CborWriter::Mark head = writer_.openArray(array.size());
  std::size_t items = 0;
  if (const std::span<const Value> members = array.packed(); members.size() < array.size()) {
    for (const Value& member : members) {
      const PackedMembers* const packed = packedIn(member);
      items += writeNeighbours(packed ? Neighbours{packed} : Neighbours{nullptr, {&member, 1}});
    }
  } else {
    items = writeNeighbours({nullptr, {array.begin(), array.size()}});
  }
  if (items < array.size()) writer_.closeArray(head, items);
  depth_ -= 1;
}

/// Returns how many items they became.
std::size_t KeyedArchiver::writeNeighbours(const Neighbours& members) {
  std::size_t items = 0;
  for (std::size_t i = 0; i < members.size() && !error_; ++items) {
    const std::size_t before = writer_.size();
    const std::size_t rows = writeTable(members, i);
    // So that what a long list takes is not copied as it grows.
    if (i == 0 && rows > 0)
      writer_.reserve(std::min((writer_.size() - before) * (members.size() / rows), limits::kMaximumFrame));
    if (rows == 0) members.packed ? write(members.packed->object(i)) : write(members.values[i]);
    i += std::max<std::size_t>(rows, 1);
  }
  return items;
}

/// Writes as many of the members from `start` as make one table; 0 when that is not two at least.
///
/// The rows are gone through once to find how many belong to the table, then anew for each column.
std::size_t KeyedArchiver::writeTable(const Neighbours& members, std::size_t start) {
  const std::size_t most = std::min(Table::kMostRows, members.size() - start);
  if (tables_ == Tables::no || most < 2 || withinError_) return 0;
  if (depth_ + kTableDepth + kFlatDepth > limits::kMaximumDepth) return 0;
  const Object* const first = members.object(start);
  const Archivable* const archivable = first ? archivableOf(*first) : nullptr;
  const ObjectClass* const objectClass = archivable ? &archivable->objectClass() : nullptr;
  if (!objectClass || !archivable->row()) return 0;
  // What is still encoded as a map is written as it came.
  const KeyList* const keys = archivable->row()->plain().keys;
  if (!keys || keys->size() < Table::kFewestKeys) return 0;

  std::array<const Value*, Table::kMostRows> values;
  std::size_t count = 0;
  for (; count < most; ++count) {
    const Object* const object = members.object(start + count);
    if (!object || typeid(*object) != typeid(*first)) break;
    const Dictionary::Plain row = static_cast<const Archivable*>(object)->row()->plain();
    if (!row.keys || !hasSameKeys(*row.keys, *keys) || !std::ranges::all_of(row.values, isFlat)) break;
    values[count] = row.values.data();
  }
  if (count < 2) return 0;

  cost_.cells += count * keys->size();
  writer_.tag(CborTag::object);
  writer_.array(2);
  writer_.text(Table::kName);
  writer_.map(4);
  writer_.text(Table::kClass);
  writer_.text(objectClass->name);
  writer_.text(Table::kKeys);
  writer_.array(keys->size());
  for (const Slice& key : keys->keys()) writeText(key.view());
  writer_.text(Table::kRows);
  writer_.integer(static_cast<int64_t>(count));
  writer_.text(Table::kColumns);
  writer_.array(keys->size());
  const std::span<const Value* const> rows(values.data(), count);
  ColumnLayout layout;
  for (std::size_t i = 0; i < keys->size() && !error_; ++i) {
    layout.take(rows, i);
    writeColumn(layout, rows, i);
  }
  return count;
}

/// Writes the values with that index, which the layout has taken.
void KeyedArchiver::writeColumn(const ColumnLayout& layout, std::span<const Value* const> rows,
                                std::size_t index) {
  const auto form = static_cast<std::size_t>(layout.form == Form::booleans ? Form::values : layout.form);
  writer_.array(1 + Table::kContents[form]);
  writer_.text(Table::kForms[form]);
  if (!hasRoom(layout.size(rows.size()))) return;
  const auto writeNumbers = [&](std::size_t width, auto&& number) {
    char* to = writer_.string(CborMajor::bytes, width * rows.size());
    const auto store = [&]<typename Integer>() {
      for (std::size_t i = 0; i < rows.size(); ++i)
        detail::storeBigEndian(to, static_cast<Integer>(number(i)));
    };
    switch (width) {
      case 1:
        return store.template operator()<uint8_t>();
      case 2:
        return store.template operator()<uint16_t>();
      case 4:
        return store.template operator()<uint32_t>();
      default:
        return store.template operator()<uint64_t>();
    }
  };
  switch (layout.form) {
    case Form::same: {
      const std::size_t start = writer_.size();
      writeFlat(rows.front()[index]);
      cost_.repeated += (writer_.size() - start) * rows.size();
      break;
    }
    case Form::values:
      writer_.array(rows.size());
      for (const auto* const row : rows) writeFlat(row[index]);
      break;
    case Form::booleans: {
      std::array<char, Table::kMostRows> items;
      for (std::size_t i = 0; i < rows.size(); ++i)
        items[i] = static_cast<char>(layout.integers[i] != 0 ? kCborTrue : kCborFalse);
      writer_.array(rows.size());
      writer_.raw({items.data(), rows.size()}, rows.size());
      break;
    }
    case Form::integers:
      writeNumbers(layout.width, [&](std::size_t i) { return layout.integers[i]; });
      break;
    case Form::texts:
    case Form::urls: {
      const std::size_t prefix = layout.prefix.size();
      writer_.text(layout.prefix);
      cost_.prefixes += prefix * rows.size();
      writeNumbers(layout.width, [&](std::size_t i) { return layout.texts[i].size() - prefix; });
      char* to = writer_.string(CborMajor::text, layout.rest);
      for (std::size_t i = 0; i < rows.size(); ++i) {
        const std::string_view text = layout.texts[i].substr(prefix);
        detail::copyBytes(to, text);
        to += text.size();
      }
      break;
    }
    case Form::dates:
      writeNumbers(layout.width, [&](std::size_t i) { return layout.integers[i]; });
      writeNumbers(layout.nanosecondWidth, [&](std::size_t i) { return layout.nanoseconds[i]; });
      break;
  }
  hasRoom(0);
}

void KeyedArchiver::writeDictionary(const Dictionary& dictionary) {
  if (const Dictionary::Packed* const packed = dictionary.packed()) {
    if (!enter(packed->levels) || !hasRoom(packed->bytes.size())) return;
    writer_.raw(packed->bytes.view(), packed->elements);
    depth_ -= packed->levels;
    return;
  }
  if (!enter(1)) return;
  writer_.map(dictionary.size());
  for (const auto& entry : dictionary) writeEntry(entry.key(), entry.value);
  depth_ -= 1;
}

void KeyedArchiver::writeError(const Error& error) {
  if (!enter(3)) return;
  writer_.tag(CborTag::object);
  writer_.array(2);
  writer_.text(kErrorClassName);
  writer_.map(error.userInfo().empty() ? 2 : 3);
  writeEntry("domain", error.domain());
  writeEntry("code", error.code());
  if (!error.userInfo().empty()) {
    const bool outer = std::exchange(withinError_, true);
    writeEntry("userInfo", error.userInfo());
    withinError_ = outer;
  }
  depth_ -= 3;
}

void KeyedArchiver::writeObject(const Object& object) {
  if (withinError_) return writeText(repairedUtf8(object.description()));
  const Archivable* const archivable = archivableOf(object);
  if (!archivable) {
    return fail(ArchiveErrorCode::notArchivable, "Objects of " + object.className() + " cannot be archived");
  }
  if (!enter(3)) return;
  writer_.tag(CborTag::object);
  writer_.array(2);
  writer_.text(archivable->objectClass().name);
  const CborWriter::Mark map = writer_.openMap();
  const std::size_t outerFields = std::exchange(fields_, 0);
  archivable->encodeWithCoder(*this);
  writer_.closeMap(map, std::exchange(fields_, outerFields));
  depth_ -= 3;
}

/// Null for an object that is none. A list mostly holds objects of one class: it is asked once.
const Archivable* KeyedArchiver::archivableOf(const Object& object) {
  const std::type_info& type = typeid(object);
  if (archivableType_ != &type && dynamic_cast<const Archivable*>(&object)) archivableType_ = &type;
  return archivableType_ == &type ? static_cast<const Archivable*>(&object) : nullptr;
}

bool KeyedArchiver::enter(unsigned levels) {
  if (depth_ + levels > limits::kMaximumDepth) {
    fail(ArchiveErrorCode::tooDeep,
         "A value of more than " + std::to_string(limits::kMaximumDepth) + " levels cannot be archived");
  } else {
    depth_ += levels;
  }
  return !error_;
}

bool KeyedArchiver::overflows(std::size_t bytes) {
  if (std::max({cost_.bytes + writer_.size() + bytes, cost_.repeated, cost_.prefixes}) >
      limits::kMaximumFrame) {
    fail(ArchiveErrorCode::tooLarge,
         "A value of more than " + std::to_string(limits::kMaximumFrame) + " bytes cannot be archived");
  } else {
    fail(ArchiveErrorCode::tooManyElements,
         "A value of more than " + std::to_string(limits::kMaximumElements) + " items cannot be archived");
  }
  return false;
}

void KeyedArchiver::fail(ArchiveErrorCode code, std::string_view fault) {
  if (!error_) error_ = archiveError(code, fault);
}

}  // namespace larkspan::platform

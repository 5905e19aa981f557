#include "larkspan/platform/archive/KeyedArchiver.h"

#include "larkspan/platform/archive/Archivable.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/base/Utf8.h"

#include <algorithm>
#include <string>
#include <typeinfo>
#include <utility>

namespace larkspan::platform {

namespace {

/// A tag, its array, a map, an array of rows and a row.
constexpr unsigned kTableDepth = 5;
/// A date.
constexpr unsigned kFlatDepth = 2;

/// The keys of a dictionary that can be a row: none of one whose entries stay encoded as a map.
std::vector<std::string_view> rowKeysOf(const Dictionary& dictionary) {
  std::vector<std::string_view> keys;
  if (const Dictionary::Packed* const packed = dictionary.packed()) {
    if (!packed->rowKeys) return keys;
    for (const Slice& key : *packed->rowKeys) keys.push_back(key.view());
  } else {
    for (const auto& entry : dictionary) keys.push_back(entry.key());
  }
  return keys;
}

/// Mostly one text in both places.
bool isSameKey(std::string_view a, std::string_view b) {
  return a.size() == b.size() && (a.data() == b.data() || a == b);
}

}  // namespace

KeyedArchiver::Result KeyedArchiver::archivedData(const Value& root) {
  ByteBuffer bytes = Slice::emptyBuffer();
  CborWriter writer(bytes);
  if (auto error = encodeValue(writer, root, 0, Tables::yes)) return {{}, std::move(error)};
  return {Data{Slice::adopt(std::move(bytes))}, std::nullopt};
}

std::optional<Error> encodeValue(CborWriter& writer, const Value& value, unsigned depth, Tables tables) {
  const CborWriter::Mark start = writer.mark();
  KeyedArchiver archiver(writer, tables, depth);
  archiver.write(value);
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
  for (std::span<const Value> left(array.begin(), array.size()); !left.empty() && !error_; ++items) {
    const std::size_t rows = writeTable(left);
    if (rows == 0) write(left.front());
    left = left.subspan(std::max<std::size_t>(rows, 1));
  }
  if (items < array.size()) writer_.closeArray(head, items);
  depth_ -= 1;
}

/// Writes as many of the members as make one table; 0 when that is not two at least.
std::size_t KeyedArchiver::writeTable(std::span<const Value> members) {
  const ObjectClass* objectClass = nullptr;
  // Of a member that is an object of the table's class, or of any as long as there is none.
  const auto rowOf = [&](const Value& member) -> const Dictionary* {
    const auto* const object = member.contentAs<std::shared_ptr<Object>>();
    const Archivable* const archivable = object ? archivableOf(**object) : nullptr;
    if (!archivable || (objectClass && objectClass != &archivable->objectClass())) return nullptr;
    objectClass = &archivable->objectClass();
    return archivable->row();
  };
  if (tables_ == Tables::no || members.size() < 2 || withinError_) return 0;
  if (depth_ + kTableDepth + kFlatDepth > limits::kMaximumDepth) return 0;
  const Dictionary* const first = rowOf(members[0]);
  const Dictionary* const second = first && first->size() >= Table::kFewestKeys ? rowOf(members[1]) : nullptr;
  if (!second) return 0;
  const std::vector<std::string_view> keys = rowKeysOf(*first);
  if (rowKeysOf(*second) != keys) return 0;

  const CborWriter::Mark start = writer_.mark();
  depth_ += kTableDepth;
  writer_.tag(CborTag::object);
  writer_.array(2);
  writer_.text(Table::kName);
  writer_.map(3);
  writer_.text(Table::kClass);
  writer_.text(objectClass->name);
  writer_.text(Table::kKeys);
  writer_.array(keys.size());
  for (const std::string_view key : keys) writer_.text(key);
  writer_.text(Table::kRows);
  const CborWriter::Mark rows = writer_.openArray(members.size());
  std::size_t count = 0;
  for (; count < members.size() && !error_; ++count) {
    const Dictionary* const row = rowOf(members[count]);
    if (!row || !writeRow(*row, keys)) break;
  }
  depth_ -= kTableDepth;
  if (count < 2 && !error_) {
    writer_.rewind(start);
    return 0;
  }
  writer_.closeArray(rows, count);
  return count;
}

/// False, with nothing written, for a dictionary that has other keys, or holds what is written in no row. A row that came in a
/// table goes out as it came.
bool KeyedArchiver::writeRow(const Dictionary& row, std::span<const std::string_view> keys) {
  if (row.size() != keys.size()) return false;
  if (const Dictionary::Packed* const packed = row.packed()) {
    if (!packed->rowKeys || packed->levels > 1 + kFlatDepth) return false;
    const auto isKey = [](std::string_view key, const Slice& own) { return isSameKey(key, own.view()); };
    if (!std::equal(keys.begin(), keys.end(), packed->rowKeys->begin(), isKey)) return false;
    if (hasRoom(packed->bytes.size())) writer_.raw(packed->bytes.view(), packed->elements);
    return true;
  }
  const CborWriter::Mark start = writer_.mark();
  writer_.array(keys.size());
  const Dictionary::Entry* entry = row.begin();
  for (const std::string_view key : keys) {
    if (!isSameKey(key, entry->key()) || !writeFlat(entry->value)) {
      writer_.rewind(start);
      return false;
    }
    ++entry;
  }
  hasRoom(0);
  return true;
}

void KeyedArchiver::writeDictionary(const Dictionary& dictionary) {
  if (const Dictionary::Packed* const packed = dictionary.packed(); packed && !packed->rowKeys) {
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
  if (writer_.size() + bytes > limits::kMaximumFrame) {
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

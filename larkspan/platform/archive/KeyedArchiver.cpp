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

/// A tag, its array, a map, an array of rows and a row, and within it a date.
constexpr unsigned kTableDepth = 5;
constexpr unsigned kRowValueDepth = 2;

/// What a row may hold.
bool isFlat(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::array:
    case Value::Kind::dictionary:
    case Value::Kind::set:
    case Value::Kind::error:
    case Value::Kind::object:
      return false;
    default:
      return true;
  }
}

bool isSame(std::string_view a, std::string_view b) {
  return a.size() == b.size() && (a.data() == b.data() || a == b);
}

/// The keys of a dictionary that can be a row: none of one whose entries stay encoded as a map.
std::vector<std::string_view> rowKeysOf(const Dictionary& dictionary) {
  std::vector<std::string_view> keys;
  const Dictionary::Packed* const packed = dictionary.packed();
  if (packed && !packed->rowKeys) return keys;
  keys.reserve(dictionary.size());
  if (packed) {
    for (const Slice& key : *packed->rowKeys) keys.push_back(key.view());
  } else {
    for (const auto& entry : dictionary) keys.push_back(entry.key());
  }
  return keys;
}

}  // namespace

KeyedArchiver::Result KeyedArchiver::archivedData(const Value& root) {
  ByteBuffer bytes;
  CborWriter writer(bytes);
  if (auto error = encodeValue(writer, root, 0, Tables::yes)) return {{}, std::move(error)};
  return {Data::copy(bytes.view()), std::nullopt};
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

void KeyedArchiver::write(const Value& value) {
  if (error_) return;
  switch (value.kind()) {
    case Value::Kind::none:
      writer_.null();
      break;
    case Value::Kind::boolean:
      writer_.boolean(value.boolValue());
      break;
    case Value::Kind::integer:
      writer_.integer(value.integerValue());
      break;
    case Value::Kind::float32:
      writer_.float32(static_cast<float>(value.doubleValue()));
      break;
    case Value::Kind::float64:
      writer_.float64(value.doubleValue());
      break;
    case Value::Kind::string:
      writeText(value.text());
      break;
    case Value::Kind::data: {
      const Data& data = *value.contentAs<Data>();
      if (hasRoom(data.bytes.size())) writer_.bytes(data.view());
      break;
    }
    case Value::Kind::date:
      writeDate(*value.contentAs<Date>());
      break;
    case Value::Kind::url:
      if (!enter(1)) break;
      writer_.tag(CborTag::uri);
      writeText(value.contentAs<URL>()->absoluteString());
      depth_ -= 1;
      break;
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
  }
  hasRoom(0);
}

void KeyedArchiver::writeText(std::string_view text) {
  if (hasRoom(text.size())) writer_.text(text);
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
  const auto archivableAt = [&](std::size_t index) {
    const auto* const object = members[index].contentAs<std::shared_ptr<Object>>();
    return object ? archivableOf(**object) : nullptr;
  };
  if (tables_ == Tables::no || members.size() < 2 || withinError_) return 0;
  if (depth_ + kTableDepth + kRowValueDepth > limits::kMaximumDepth) return 0;
  const Archivable* const first = archivableAt(0);
  const Dictionary* const firstRow = first ? first->row() : nullptr;
  if (!firstRow || firstRow->size() < Table::kFewestKeys) return 0;
  const ObjectClass& objectClass = first->objectClass();
  const std::vector<std::string_view> keys = rowKeysOf(*firstRow);
  if (keys.empty()) return 0;

  const CborWriter::Mark start = writer_.mark();
  depth_ += kTableDepth;
  writer_.tag(CborTag::object);
  writer_.array(2);
  writer_.text(Table::kName);
  writer_.map(3);
  writer_.text(Table::kClass);
  writer_.text(objectClass.name);
  writer_.text(Table::kKeys);
  writer_.array(keys.size());
  for (const std::string_view key : keys) writer_.text(key);
  writer_.text(Table::kRows);
  const CborWriter::Mark rows = writer_.openArray(members.size());
  std::size_t count = 0;
  for (; count < members.size() && !error_; ++count) {
    const Archivable* const member = archivableAt(count);
    if (!member || &member->objectClass() != &objectClass || !writeRow(*member->row(), keys)) break;
  }
  depth_ -= kTableDepth;
  if (count < 2 && !error_) {
    writer_.rewind(start);
    return 0;
  }
  writer_.closeArray(rows, count);
  return count;
}

/// False, with nothing written, for a row that has other keys, or what no row may hold.
bool KeyedArchiver::writeRow(const Dictionary& row, std::span<const std::string_view> keys) {
  if (row.size() != keys.size()) return false;
  if (const Dictionary::Packed* const packed = row.packed()) {
    const auto matches = [](const Slice& a, std::string_view b) { return isSame(a.view(), b); };
    if (!packed->rowKeys ||
        !std::equal(packed->rowKeys->begin(), packed->rowKeys->end(), keys.begin(), matches)) {
      return false;
    }
    if (packed->levels > 1 + kRowValueDepth) return false;
    if (hasRoom(packed->bytes.size())) writer_.raw(packed->bytes.view(), packed->elements);
    return true;
  }
  const CborWriter::Mark start = writer_.mark();
  writer_.array(keys.size());
  auto key = keys.begin();
  for (const auto& entry : row) {
    if (!isSame(entry.key(), *key++) || !isFlat(entry.value)) {
      writer_.rewind(start);
      return false;
    }
    write(entry.value);
  }
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

void KeyedArchiver::writeDate(const Date& date) {
  if (!enter(2)) return;
  writer_.date(date.seconds, date.nanoseconds);
  depth_ -= 2;
}

void KeyedArchiver::writeError(const Error& error) {
  if (!enter(3)) return;
  writer_.tag(CborTag::object);
  writer_.array(2);
  writer_.text("Error");
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

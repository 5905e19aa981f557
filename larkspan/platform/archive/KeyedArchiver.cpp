#include "larkspan/platform/archive/KeyedArchiver.h"

#include "larkspan/platform/archive/Archivable.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/base/Utf8.h"

#include <string>
#include <typeinfo>
#include <utility>

namespace larkspan::platform {

KeyedArchiver::Result KeyedArchiver::archivedData(const Value& root) {
  ByteBuffer bytes;
  CborWriter writer(bytes);
  if (auto error = encodeValue(writer, root)) return {{}, std::move(error)};
  return {Data::copy(bytes.view()), std::nullopt};
}

std::optional<Error> encodeValue(CborWriter& writer, const Value& value, unsigned depth) {
  const CborWriter::Mark start = writer.mark();
  KeyedArchiver archiver(writer, depth);
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
  writer_.array(array.size());
  for (const Value& member : array) write(member);
  depth_ -= 1;
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
  // A list mostly holds objects of one class: it is asked once.
  const std::type_info& type = typeid(object);
  if (archivableType_ != &type && dynamic_cast<const Archivable*>(&object)) archivableType_ = &type;
  const auto* archivable = archivableType_ == &type ? static_cast<const Archivable*>(&object) : nullptr;
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

#include "larkspan/platform/archive/KeyedUnarchiver.h"

#include "larkspan/platform/archive/InternedKeys.h"
#include "larkspan/platform/archive/PackedDictionary.h"
#include "larkspan/platform/archive/TableRows.h"
#include "larkspan/platform/archive/URLCheck.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Limits.h"
#include "larkspan/platform/base/Utf8.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

namespace larkspan::platform {

namespace {

/// How much of a class's name is shown.
constexpr std::size_t kShownName = 80;

/// Whether each byte is an item of its own that is a boolean.
bool areBooleans(std::string_view items) {
  return std::ranges::all_of(items,
                             [](char item) { return (static_cast<uint8_t>(item) & ~1U) == kCborFalse; });
}

/// The content of tag 1.
std::optional<Date> epochTime(const CborHead& head) {
  if (head.isInteger()) return Date{head.integer(), 0};
  if (!head.isFloat()) return std::nullopt;
  const double seconds = std::floor(head.real());
  if (!(seconds >= -0x1p63 && seconds < 0x1p63)) return std::nullopt;
  const auto nanoseconds = static_cast<uint32_t>((head.real() - seconds) * 1e9 + 0.5);
  return Date{static_cast<int64_t>(seconds), nanoseconds};
}

/// The content of tag 1001, of which the keys 1 and -9 are understood.
std::optional<Date> extendedTime(const CborHead& head, CborReader& reader) {
  if (head.major != CborMajor::map) return std::nullopt;
  std::optional<int64_t> seconds;
  std::optional<int64_t> nanoseconds;
  for (uint64_t left = head.argument; left > 0; --left) {
    const CborHead key = reader.next();
    if (!key.isInteger() || (key.integer() != 1 && key.integer() != -9)) return std::nullopt;
    const CborHead value = reader.next();
    auto& part = key.integer() == 1 ? seconds : nanoseconds;
    if (!value.isInteger() || part) return std::nullopt;
    part = value.integer();
  }
  if (!seconds || nanoseconds.value_or(0) < 0 || nanoseconds.value_or(0) > Date::kMostNanoseconds)
    return std::nullopt;
  return Date{*seconds, static_cast<uint32_t>(nanoseconds.value_or(0))};
}

}  // namespace

KeyedUnarchiver::Result KeyedUnarchiver::unarchivedValue(const Data& archive, const ClassSet& classes) {
  PlainMaps plainMaps;
  if (auto error = checkWellFormed(archive.view(), &plainMaps)) return {{}, std::move(error)};
  CborReader reader(archive.view());
  return decodeValue(archive.bytes, reader, classes, plainMaps);
}

Value KeyedUnarchiver::plainValue(const Slice& frame, CborReader& reader) {
  KeyedUnarchiver unarchiver(frame, reader.position(), {});
  unarchiver.isPlain_ = true;
  Value value = unarchiver.read(ClassSet::allValues(), Place::within);
  reader.moveTo(unarchiver.reader_.position());
  return value;
}

KeyedUnarchiver::Result decodeValue(const Slice& frame, CborReader& reader, const ClassSet& classes,
                                    std::span<const PlainMap> plainMaps, MessageCost* cost) {
  KeyedUnarchiver unarchiver(frame, reader.position(), plainMaps);
  if (cost) unarchiver.cost_ = *cost;
  KeyedUnarchiver::Result result{unarchiver.read(classes, KeyedUnarchiver::Place::outermost), std::nullopt};
  if (cost) *cost = unarchiver.cost_;
  reader.moveTo(unarchiver.reader_.position());
  if (unarchiver.error_) result = {{}, std::move(unarchiver.error_)};
  return result;
}

KeyedUnarchiver::KeyedUnarchiver(const Slice& frame, std::size_t position,
                                 std::span<const PlainMap> plainMaps)
    : frame_(frame), reader_(frame.view()), plainMaps_(plainMaps) {
  reader_.moveTo(position);
}

void KeyedUnarchiver::fail(Error error) {
  if (!error_) error_ = std::move(error);
}

Value KeyedUnarchiver::fault(ArchiveErrorCode code, std::string_view text, std::size_t offset) {
  fail(archiveError(code, text, offset));
  return {};
}

Value KeyedUnarchiver::forbidden(std::string_view what, std::size_t offset) {
  return fault(ArchiveErrorCode::forbiddenClass, std::string(what) + " is not allowed here", offset);
}

Value KeyedUnarchiver::read(const ClassSet& classes, Place place) {
  const std::size_t start = reader_.position();
  const CborHead head = reader_.next();
  switch (head.major) {
    case CborMajor::unsignedInteger:
    case CborMajor::negativeInteger:
      if (!classes.admits(ValueClass::number)) return forbidden("A number", start);
      return head.integer();
    case CborMajor::simple:
      if (head.isNull()) return {};
      if (!classes.admits(ValueClass::number)) return forbidden("A number", start);
      if (head.isBoolean()) return head.boolean();
      if (head.info == 27) return head.real();
      return static_cast<float>(head.real());
    case CborMajor::text:
      if (!(place == Place::within ? classes.admitsStringsWithin() : classes.admits(ValueClass::string)))
        return forbidden("A string", start);
      return Value::wellFormed(sharedPart(frame_, reader_.content(head)));
    case CborMajor::bytes:
      if (!classes.admits(ValueClass::data)) return forbidden("Data", start);
      return Data{sharedPart(frame_, reader_.content(head))};
    case CborMajor::array:
      if (!classes.admits(ValueClass::array)) return forbidden("An array", start);
      return readArray(head.argument, classes);
    case CborMajor::map:
      if (!classes.admits(ValueClass::dictionary)) return forbidden("A dictionary", start);
      return readMap(head.argument, classes, start);
    case CborMajor::tag:
      return readTagged(head.argument, classes, start);
  }
  return {};
}

Value KeyedUnarchiver::readTagged(uint64_t tag, const ClassSet& classes, std::size_t start) {
  switch (static_cast<CborTag>(tag)) {
    case CborTag::object:
      return readObject(classes, start, nullptr);
    case CborTag::epochTime:
    case CborTag::extendedTime: {
      if (!classes.admits(ValueClass::date)) return forbidden("A date", start);
      const CborHead head = reader_.next();
      auto date =
          tag == static_cast<uint64_t>(CborTag::epochTime) ? epochTime(head) : extendedTime(head, reader_);
      return date ? *date : fault(ArchiveErrorCode::malformed, "A malformed date", start);
    }
    case CborTag::uri: {
      if (!classes.admits(ValueClass::url)) return forbidden("A URL", start);
      const CborHead head = reader_.next();
      const std::string_view text =
          head.major == CborMajor::text ? reader_.content(head) : std::string_view(":");
      if (!isPlain_ && !URL::isWellFormed(text))
        return fault(ArchiveErrorCode::malformed, "A malformed URL", start);
      return URL::wellFormed(sharedPart(frame_, text));
    }
    case CborTag::set: {
      if (!classes.admits(ValueClass::set)) return forbidden("A set", start);
      const CborHead head = reader_.next();
      if (head.major != CborMajor::array) return fault(ArchiveErrorCode::malformed, "A malformed set", start);
      const Array members = readArray(head.argument, classes);
      return Set(std::vector<Value>(members.begin(), members.end()));
    }
  }
  return fault(ArchiveErrorCode::malformed, "The unknown tag " + std::to_string(tag), start);
}

Array KeyedUnarchiver::readArray(uint64_t size, const ClassSet& classes) {
  const bool outer = std::exchange(hasPacked_, false);
  std::vector<Value> members;
  members.reserve(size);
  for (; size > 0 && !error_; --size) {
    const std::size_t start = reader_.position();
    if (!reader_.peek().isTag(CborTag::object)) {
      members.push_back(read(classes, Place::within));
      continue;
    }
    reader_.next();
    Value object = readObject(classes, start, &members);
    if (!object.isNone()) members.push_back(std::move(object));
  }
  return std::exchange(hasPacked_, outer) ? Array::withPacked(std::move(members)) : Array(std::move(members));
}

/// The fields of a table, whose objects it appends.
void KeyedUnarchiver::readTable(const ClassSet& classes, std::vector<Value>& members, std::size_t start) {
  const auto malformed = [&] { fault(ArchiveErrorCode::malformed, "A malformed table", start); };
  const Value className = decodeObject(Table::kClass, {ValueClass::string});
  if (className.isNone()) return malformed();
  const std::string_view name = className.text();
  const ObjectClass* const objectClass = classes.objectClass(name);
  if (!objectClass || !objectClass->rows) {
    forbidden("A table of the class \"" + shortened(name, kShownName) + "\"", start);
    return;
  }
  std::vector<Slice> keys = find(Table::kKeys) ? readTableKeys() : std::vector<Slice>();
  const Value rows = decodeNumber(Table::kRows);
  if (keys.empty() || rows.kind() != Value::Kind::integer || rows.integerValue() < 1 ||
      !find(Table::kColumns))
    return malformed();
  const auto count = static_cast<std::size_t>(rows.integerValue());
  if (count > (limits::kMaximumElements - cost_.cells) / keys.size()) {
    fault(ArchiveErrorCode::tooManyElements,
          "Tables of more than " + std::to_string(limits::kMaximumElements) + " values", start);
    return;
  }
  cost_.cells += count * keys.size();
  const std::size_t columnsStart = reader_.position();
  const CborHead head = reader_.next();
  if (head.major != CborMajor::array || head.argument != keys.size()) return malformed();
  std::vector<TableColumn> columns(keys.size());
  for (TableColumn& column : columns) {
    const std::size_t columnStart = reader_.position();
    if (!readColumn(column, count, objectClass->rows->classes()))
      fault(ArchiveErrorCode::malformed, "A malformed column", columnStart);
    if (error_) return;
  }
  const std::size_t size = std::max(reader_.position() - columnsStart, count * keys.size());
  notePassed(columnsStart);
  auto table =
      std::make_shared<TableRows>(*objectClass, frame_, KeyList(std::move(keys)), std::move(columns), count);
  // Few objects, one of which may be kept, shall not keep a large frame.
  constexpr std::size_t kFewRows = 16, kSmallPart = 512;
  if (count < kFewRows || size < frame_.blockSize() / kSmallPart) {
    for (std::size_t row = 0; row < count; ++row) members.emplace_back(table->object(row));
    return;
  }
  members.emplace_back(std::move(table));
  hasPacked_ = true;
}

/// Empty when they are none that a table may have.
std::vector<Slice> KeyedUnarchiver::readTableKeys() {
  const std::size_t start = reader_.position();
  const CborHead head = reader_.next();
  if (head.major != CborMajor::array || head.argument < Table::kFewestKeys) return {};
  std::vector<Slice> keys;
  std::vector<std::string_view> sorted;
  for (uint64_t left = head.argument; left > 0; --left) {
    const CborHead key = reader_.next();
    if (key.major != CborMajor::text) return {};
    sorted.push_back(reader_.content(key));
    keys.push_back(internedKey(sorted.back()));
  }
  notePassed(start);
  std::sort(sorted.begin(), sorted.end());
  if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) return {};
  return keys;
}

/// False when it is none that a table of so many rows may have.
bool KeyedUnarchiver::readColumn(TableColumn& column, std::size_t rows, const ClassSet& classes) {
  using Form = TableColumn::Form;
  const std::size_t start = reader_.position();
  const CborHead array = reader_.next();
  if (array.major != CborMajor::array || array.argument < 2) return false;
  const CborHead name = reader_.next();
  if (name.major != CborMajor::text) return false;
  const auto* const form =
      std::find(std::begin(Table::kForms), std::end(Table::kForms), reader_.content(name));
  if (form == std::end(Table::kForms)) return false;
  column.form = static_cast<Form>(form - Table::kForms);
  if (array.argument != 1 + Table::kContents[form - Table::kForms]) return false;

  const auto admit = [&](bool isAdmitted, std::string_view what) {
    if (!isAdmitted) forbidden(what, start);
    return true;
  };
  const auto next = [&](CborMajor major) {
    const CborHead head = reader_.next();
    return head.major == major ? std::optional(reader_.content(head)) : std::nullopt;
  };
  const auto placeOf = [&](std::string_view content) {
    return static_cast<std::size_t>(content.data() - frame_.data());
  };
  // How many bytes each row has; 0 when that is none of 1, 2, 4 and 8.
  const auto widthIn = [&](std::string_view bytes) -> unsigned {
    for (const unsigned width : {1U, 2U, 4U, 8U}) {
      if (bytes.size() == width * rows) return width;
    }
    return 0;
  };
  const auto repeat = [&](std::size_t bytes, std::size_t& total) {
    total += bytes * rows;
    if (total <= limits::kMaximumFrame) return true;
    fault(ArchiveErrorCode::tooLarge, "Rows of more than " + std::to_string(limits::kMaximumFrame) + " bytes",
          start);
    return false;
  };
  switch (column.form) {
    case Form::same: {
      const std::size_t valueStart = reader_.position();
      column.values.push_back(readFlat(classes));
      repeat(reader_.position() - valueStart, cost_.repeated);
      return true;
    }
    case Form::values: {
      const CborHead head = reader_.next();
      if (head.major != CborMajor::array || head.argument != rows) return false;
      if (const std::size_t first = reader_.position(); areBooleans(frame_.view().substr(first, rows))) {
        column.form = Form::booleans;
        column.first = first;
        reader_.moveTo(first + rows);
        return admit(classes.admits(ValueClass::number), "A number");
      }
      column.values.reserve(rows);
      while (column.values.size() < rows && !error_) column.values.push_back(readFlat(classes));
      return true;
    }
    case Form::integers: {
      const auto integers = next(CborMajor::bytes);
      if (!integers || (column.width = widthIn(*integers)) == 0) return false;
      column.first = placeOf(*integers);
      return admit(classes.admits(ValueClass::number), "A number");
    }
    case Form::dates: {
      const auto seconds = next(CborMajor::bytes);
      const auto nanoseconds = seconds ? next(CborMajor::bytes) : std::nullopt;
      if (!nanoseconds || (column.width = widthIn(*seconds)) == 0 ||
          (column.nanosecondWidth = widthIn(*nanoseconds)) == 0)
        return false;
      column.first = placeOf(*seconds);
      column.second = placeOf(*nanoseconds);
      for (std::size_t row = 0; row < rows; ++row) {
        const char* const at = nanoseconds->data() + column.nanosecondWidth * row;
        if (detail::loadBigEndian(at, column.nanosecondWidth) > Date::kMostNanoseconds) return false;
      }
      return admit(classes.admits(ValueClass::date), "A date");
    }
    case Form::texts:
    case Form::urls:
      break;
    case Form::booleans:
      return false;
  }
  const auto prefix = next(CborMajor::text);
  const auto lengths = prefix ? next(CborMajor::bytes) : std::nullopt;
  const auto text = lengths ? next(CborMajor::text) : std::nullopt;
  const unsigned width = text ? widthIn(*lengths) : 0;
  if (width == 0) return false;
  if (!repeat(prefix->size(), cost_.prefixes)) return true;
  column.first = placeOf(*text);
  column.prefix = *prefix;
  const bool isUrl = column.form == Form::urls;
  column.ends.reserve(rows);
  URLCheck urls = isUrl ? URLCheck(*prefix, *text) : URLCheck();
  std::size_t end = 0;
  for (std::size_t row = 0; row < rows; ++row) {
    const std::size_t begin = end;
    const uint64_t length = detail::loadBigEndian(lengths->data() + width * row, width);
    if (length > text->size() - begin) return false;
    end = begin + length;
    // All of the text is well-formed, so each part is that begins and ends between characters.
    if (isInsideCharacter(*text, end)) return false;
    if (isUrl && !urls.isWellFormed(text->substr(begin, end - begin))) return false;
    column.ends.push_back(static_cast<uint32_t>(end));
  }
  if (end != text->size()) return false;
  return isUrl ? admit(classes.admits(ValueClass::url), "A URL")
               : admit(classes.admitsStringsWithin(), "A string");
}

/// A value that is no container, error or object.
Value KeyedUnarchiver::readFlat(const ClassSet& classes) {
  const CborHead head = reader_.peek();
  if (head.major == CborMajor::array || head.major == CborMajor::map || head.isTag(CborTag::object) ||
      head.isTag(CborTag::set)) {
    return fault(ArchiveErrorCode::malformed, "A value that a column may not hold", reader_.position());
  }
  return read(classes, Place::within);
}

/// Large maps, and those of small frames, share the frame; small ones are copied out of it, several at a time.
Slice KeyedUnarchiver::bytesOf(const PlainMap& map) {
  const std::size_t size = map.end - map.start;
  if (size >= kSharedLength || frame_.size() < kSharedLength) return frame_.part(map.start, size);
  if (map.start < runStart_ || map.end > runStart_ + run_.size()) {
    runStart_ = map.start;
    run_ = Slice::copy(frame_.view().substr(map.start, kSharedLength));
  }
  return run_.part(map.start - runStart_, size);
}

Value KeyedUnarchiver::readMap(uint64_t size, const ClassSet& classes, std::size_t start) {
  if (const PlainMap* const plain = plainAt(start); plain && classes.admitsWithin(plain->kinds)) {
    reader_.moveTo(plain->end);
    return packedDictionary(bytesOf(*plain), *plain);
  }
  return readDictionary(size, classes);
}

/// The plain map that begins there, or null.
const PlainMap* KeyedUnarchiver::plainAt(std::size_t start) {
  while (!plainMaps_.empty() && plainMaps_.front().start < start) plainMaps_ = plainMaps_.subspan(1);
  return !plainMaps_.empty() && plainMaps_.front().start == start ? &plainMaps_.front() : nullptr;
}

Dictionary KeyedUnarchiver::readDictionary(uint64_t size, const ClassSet& classes) {
  if (size == 0) return {};
  Dictionary result = Dictionary::withCapacity(size);
  for (; size > 0 && !error_; --size) {
    const std::string_view key = reader_.content(reader_.next());
    result.append(internedKey(key), read(classes, Place::within));
  }
  return result;
}

/// The object behind the tag that has been passed; none after an error, and for a table among `members`, which its rows
/// are appended to.
Value KeyedUnarchiver::readObject(const ClassSet& classes, std::size_t start, std::vector<Value>* members) {
  const auto malformed = [&] { return fault(ArchiveErrorCode::malformed, "A malformed object", start); };
  const CborHead pair = reader_.next();
  if (pair.major != CborMajor::array || pair.argument != 2) return malformed();
  const CborHead nameHead = reader_.next();
  if (nameHead.major != CborMajor::text) return malformed();
  const std::string_view name = reader_.content(nameHead);
  const CborHead map = reader_.next();
  if (map.major != CborMajor::map) return malformed();

  const bool isError = name == kErrorClassName && classes.admits(ValueClass::error);
  const bool isTable = members && name == Table::kName;
  const ObjectClass* const objectClass = isError || isTable ? nullptr : classes.objectClass(name);
  if (!isError && !isTable && !objectClass) {
    return forbidden("An object of the class \"" + shortened(name, kShownName) + "\"", start);
  }

  const ObjectState outer = std::exchange(object_, {passed_.size(), reader_.position(), false, map.argument});
  Value result;
  if (isTable) {
    readTable(classes, *members, start);
  } else {
    result = isError ? readError() : Value(objectClass->decode(*this));
  }
  if (result.isNone() && !isTable) fault(ArchiveErrorCode::malformed, "An object that cannot be made", start);
  if (!error_) passRest();
  passed_.resize(object_.firstPassed);
  object_ = outer;
  return result;
}

Value KeyedUnarchiver::readError() {
  static const ClassSet& text = *new ClassSet{ValueClass::string};
  const Value domain = decodeObject("domain", text);
  const int64_t code = decodeInt64("code");
  const Value userInfo = decodeObject("userInfo", ClassSet::allValues());
  if (error_ || domain.isNone()) return {};
  return Error(domain.text(), code, userInfo.dictionary());
}

void KeyedUnarchiver::passRest() {
  reader_.moveTo(object_.walk);
  if (object_.walkAtValue) reader_.skip();
  for (uint64_t left = 2 * object_.fieldsLeft; left > 0; --left) reader_.skip();
}

bool KeyedUnarchiver::find(std::string_view key) {
  if (error_) return false;
  for (std::size_t i = object_.firstPassed; i < passed_.size(); ++i) {
    if (passed_[i].key == key) {
      reader_.moveTo(passed_[i].position);
      return true;
    }
  }
  while (object_.fieldsLeft > 0) {
    reader_.moveTo(object_.walk);
    if (object_.walkAtValue) reader_.skip();
    const std::string_view name = reader_.content(reader_.next());
    object_.walk = reader_.position();
    object_.walkAtValue = true;
    --object_.fieldsLeft;
    passed_.push_back({name, object_.walk});
    if (name == key) return true;
  }
  return false;
}

Value KeyedUnarchiver::readFound(const ClassSet& classes) {
  const std::size_t start = reader_.position();
  Value value = read(classes, Place::outermost);
  notePassed(start);
  return value;
}

/// The reader has passed the value of the object's field that begins at `start`.
void KeyedUnarchiver::notePassed(std::size_t start) {
  if (!object_.walkAtValue || object_.walk != start) return;
  object_.walk = reader_.position();
  object_.walkAtValue = false;
}

Value KeyedUnarchiver::decodeObject(std::string_view key, const ClassSet& classes) {
  return find(key) ? readFound(classes) : Value();
}

Value KeyedUnarchiver::decodeNumber(std::string_view key) {
  static const ClassSet& numbers = *new ClassSet{ValueClass::number};
  if (!find(key)) return {};
  const CborHead head = reader_.peek();
  return head.isInteger() || head.isBoolean() || head.isFloat() ? readFound(numbers) : Value();
}

}  // namespace larkspan::platform

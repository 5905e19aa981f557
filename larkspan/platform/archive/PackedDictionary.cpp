#include "larkspan/platform/archive/PackedDictionary.h"

#include "larkspan/platform/archive/InternedKeys.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Value.h"

#include <vector>

namespace larkspan::platform {

namespace {

Value valueAt(const Slice& map, CborReader& reader) {
  if (const CborHead head = reader.peek(); head.isInteger()) return reader.next().integer();
  return KeyedUnarchiver::plainValue(map, reader);
}

std::optional<Value> findInMap(const Dictionary::Packed& packed, std::string_view key) {
  CborReader reader(packed.bytes.view());
  reader.next();
  for (uint32_t left = packed.entries; left > 0; --left) {
    const std::string_view name = reader.content(reader.next());
    if (name.size() == key.size() && name == key) return valueAt(packed.bytes, reader);
    reader.skip();
  }
  return std::nullopt;
}

std::vector<Dictionary::Entry> unpackMap(const Dictionary::Packed& packed) {
  std::vector<Dictionary::Entry> entries;
  entries.reserve(packed.entries);
  CborReader reader(packed.bytes.view());
  reader.next();
  for (uint32_t left = packed.entries; left > 0; --left) {
    const std::string_view name = reader.content(reader.next());
    entries.push_back({internedKey(name), valueAt(packed.bytes, reader)});
  }
  return entries;
}

std::optional<Value> findInRow(const Slice& bytes, std::size_t start, const std::vector<Slice>& keys,
                               std::string_view key) {
  std::size_t index = 0;
  while (index < keys.size() && (keys[index].size() != key.size() || keys[index].view() != key)) ++index;
  if (index == keys.size()) return std::nullopt;
  CborReader reader(bytes.view());
  reader.moveTo(start);
  reader.next();
  reader.skip(index);
  return valueAt(bytes, reader);
}

std::optional<Value> findInPackedRow(const Dictionary::Packed& packed, std::string_view key) {
  return findInRow(packed.bytes, 0, *packed.rowKeys, key);
}

std::vector<Dictionary::Entry> unpackRow(const Dictionary::Packed& packed) {
  std::vector<Dictionary::Entry> entries;
  entries.reserve(packed.entries);
  CborReader reader(packed.bytes.view());
  reader.next();
  for (const Slice& key : *packed.rowKeys) entries.push_back({key, valueAt(packed.bytes, reader)});
  return entries;
}

constexpr Dictionary::PackedCoding kMapCoding{&findInMap, &unpackMap};
constexpr Dictionary::PackedCoding kRowCoding{&findInPackedRow, &unpackRow};

}  // namespace

Dictionary packedDictionary(Slice bytes, const PlainRun& map) {
  return Dictionary(
      {std::move(bytes), &kMapCoding, nullptr, map.keys, map.entries, map.elements, map.levels});
}

Dictionary packedRow(Slice bytes, uint32_t elements, uint8_t levels,
                     std::shared_ptr<const std::vector<Slice>> keys, uint64_t keyBits) {
  const auto entries = static_cast<uint32_t>(keys->size());
  return Dictionary({std::move(bytes), &kRowCoding, std::move(keys), keyBits, entries, elements, levels});
}

Value valueInRow(const Slice& bytes, std::size_t start, const std::vector<Slice>& keys,
                 std::string_view key) {
  return findInRow(bytes, start, keys, key).value_or(Value());
}

}  // namespace larkspan::platform

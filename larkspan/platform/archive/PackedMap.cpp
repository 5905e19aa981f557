#include "larkspan/platform/archive/PackedMap.h"

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

std::optional<Value> find(const Dictionary::Packed& packed, std::string_view key) {
  CborReader reader(packed.bytes.view());
  reader.next();
  for (uint32_t left = packed.entries; left > 0; --left) {
    const std::string_view name = reader.content(reader.next());
    if (name.size() == key.size() && name == key) return valueAt(packed.bytes, reader);
    reader.skip();
  }
  return std::nullopt;
}

std::vector<Dictionary::Entry> unpack(const Dictionary::Packed& packed) {
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

constexpr Dictionary::PackedCoding kMapCoding{&find, &unpack};

std::optional<Value> findInRow(const Dictionary::Packed& packed, std::string_view key) {
  CborReader reader(packed.bytes.view());
  reader.next();
  for (const Slice& name : *packed.rowKeys) {
    if (name.size() == key.size() && (name.data() == key.data() || name.view() == key))
      return valueAt(packed.bytes, reader);
    reader.skip();
  }
  return std::nullopt;
}

std::vector<Dictionary::Entry> unpackRow(const Dictionary::Packed& packed) {
  std::vector<Dictionary::Entry> entries;
  entries.reserve(packed.entries);
  CborReader reader(packed.bytes.view());
  reader.next();
  for (const Slice& name : *packed.rowKeys) entries.push_back({name, valueAt(packed.bytes, reader)});
  return entries;
}

constexpr Dictionary::PackedCoding kRowCoding{&findInRow, &unpackRow};

}  // namespace

Dictionary packedDictionary(Slice bytes, const PlainMap& map) {
  return Dictionary(
      {std::move(bytes), &kMapCoding, nullptr, map.keys, map.entries, map.elements, map.levels});
}

Dictionary packedRow(Slice bytes, const PlainMap& row, std::shared_ptr<const std::vector<Slice>> keys,
                     uint64_t keyBits, ChunkPool& pool) {
  return Dictionary(
      {std::move(bytes), &kRowCoding, std::move(keys), keyBits, row.entries, row.elements, row.levels}, pool);
}

}  // namespace larkspan::platform

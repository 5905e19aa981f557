#include "larkspan/platform/archive/PackedDictionary.h"

#include "larkspan/platform/archive/InternedKeys.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Value.h"

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

Dictionary unpackMap(const Dictionary::Packed& packed) {
  Dictionary entries = Dictionary::withCapacity(packed.entries);
  CborReader reader(packed.bytes.view());
  reader.next();
  for (uint32_t left = packed.entries; left > 0; --left) {
    const std::string_view key = reader.content(reader.next());
    entries.append(internedKey(key), valueAt(packed.bytes, reader));
  }
  return entries;
}

constexpr Dictionary::PackedCoding kMapCoding{&findInMap, &unpackMap};

}  // namespace

Dictionary packedDictionary(Slice bytes, const PlainMap& map) {
  return Dictionary({std::move(bytes), &kMapCoding, map.keys, map.entries, map.elements, map.levels});
}

}  // namespace larkspan::platform

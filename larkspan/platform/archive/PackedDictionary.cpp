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

/// The keys of a map, which stand before their values; of a row, which stand apart.
template <bool isRow>
class Keys {
 public:
  explicit Keys(const Dictionary::Packed& packed) : packed_(packed) {}
  std::string_view next(CborReader& reader) {
    if constexpr (isRow) return (*packed_.rowKeys)[at_++].view();
    return reader.content(reader.next());
  }
  /// A slice of the key that came last.
  Slice slice(std::string_view key) const {
    if constexpr (isRow) return (*packed_.rowKeys)[at_ - 1];
    return internedKey(key);
  }

 private:
  const Dictionary::Packed& packed_;
  std::size_t at_ = 0;
};

template <bool isRow>
std::optional<Value> find(const Dictionary::Packed& packed, std::string_view key) {
  CborReader reader(packed.bytes.view());
  reader.next();
  Keys<isRow> keys(packed);
  for (uint32_t left = packed.entries; left > 0; --left) {
    const std::string_view name = keys.next(reader);
    if (name.size() == key.size() && name == key) return valueAt(packed.bytes, reader);
    reader.skip();
  }
  return std::nullopt;
}

template <bool isRow>
std::vector<Dictionary::Entry> unpack(const Dictionary::Packed& packed) {
  std::vector<Dictionary::Entry> entries;
  entries.reserve(packed.entries);
  CborReader reader(packed.bytes.view());
  reader.next();
  Keys<isRow> keys(packed);
  for (uint32_t left = packed.entries; left > 0; --left) {
    const std::string_view name = keys.next(reader);
    entries.push_back({keys.slice(name), valueAt(packed.bytes, reader)});
  }
  return entries;
}

template <bool isRow>
constexpr Dictionary::PackedCoding kCoding{&find<isRow>, &unpack<isRow>};

}  // namespace

Dictionary packedDictionary(Slice bytes, const PlainRun& map) {
  return Dictionary(
      {std::move(bytes), &kCoding<false>, nullptr, map.keys, map.entries, map.elements, map.levels});
}

Dictionary packedRow(Slice bytes, const PlainRun& row, std::shared_ptr<const std::vector<Slice>> keys,
                     uint64_t keyBits, ChunkPool* pool) {
  return Dictionary(
      {std::move(bytes), &kCoding<true>, std::move(keys), keyBits, row.entries, row.elements, row.levels},
      pool);
}

}  // namespace larkspan::platform

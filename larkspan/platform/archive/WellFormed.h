#pragma once

#include "larkspan/platform/base/Error.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace larkspan::platform {

/// A map whose entries need not be made before somebody asks for them: all that it holds, at any depth, is a
/// number, a string, data, an array or a map, or a date or URL in the form that the archiver writes, so that its
/// decoding cannot fail. Notes what a reader would otherwise have to walk the map for.
struct PlainMap {
  uint32_t start;     ///< Where its head stands.
  uint32_t end;       ///< Behind its last byte.
  uint32_t entries;   ///< Its own.
  uint32_t elements;  ///< Items in it, as `limits::kMaximumElements` counts them, its own head among them.
  uint64_t keys;      ///< The bits of its own keys: see `keyBit`.
  uint16_t kinds;     ///< The bits of the value classes that it holds: see `ClassSet`.
  uint8_t levels;     ///< Containers and tags inside each other, itself counted.
};

/// Outermost plain maps, in the order in which they stand.
using PlainMaps = std::vector<PlainMap>;

/// Nothing if the bytes are exactly one CBOR item that `CborReader` may walk, else the first fault with its
/// byte offset. What is refused beyond RFC 8949's own rules: indefinite lengths, trailing bytes, integers
/// outside int64_t, simple values but false, true and null, text that is not UTF-8, map keys that are not
/// text (directly beneath tag 1001: integers too), keys that stand twice in a map, and what exceeds
/// `limits`. Heads longer than necessary and floats of 16 bits pass: other encoders write them.
/// Takes no memory on account of claimed lengths, and O(n log n) time on n bytes. `plainMaps`, if given, gets
/// the plain maps, and `elements` the number of items as `limits::kMaximumElements` counts them; both are left undefined
/// when there is a fault.
std::optional<Error> checkWellFormed(std::string_view item, PlainMaps* plainMaps = nullptr,
                                     std::size_t* elements = nullptr);

}  // namespace larkspan::platform

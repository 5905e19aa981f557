#pragma once

#include "larkspan/platform/archive/WellFormed.h"
#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Slice.h"
#include "larkspan/platform/base/Value.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace larkspan::platform {

/// The dictionary of a plain map, read when somebody asks for its entries. `bytes` are the map's own.
Dictionary packedDictionary(Slice bytes, const PlainRun& map);

/// The same of a row of a table: `bytes` are an array of as many values as there are keys, with so many data items and
/// levels of nesting.
Dictionary packedRow(Slice bytes, uint32_t elements, uint8_t levels,
                     std::shared_ptr<const std::vector<Slice>> keys, uint64_t keyBits);

/// The value that such a row, which starts there, has under the key, or none.
Value valueInRow(const Slice& bytes, std::size_t start, const std::vector<Slice>& keys, std::string_view key);

}  // namespace larkspan::platform

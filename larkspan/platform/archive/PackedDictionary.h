#pragma once

#include "larkspan/platform/archive/WellFormed.h"
#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Slice.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace larkspan::platform {

class ChunkPool;

/// The dictionary of a plain map, read when somebody asks for its entries. `bytes` are the map's own.
Dictionary packedDictionary(Slice bytes, const PlainRun& map);

/// The same of a row of a table: `bytes` are an array of as many values as there are keys. Without a pool it comes from
/// the heap.
Dictionary packedRow(Slice bytes, const PlainRun& row, std::shared_ptr<const std::vector<Slice>> keys,
                     uint64_t keyBits, ChunkPool* pool);

}  // namespace larkspan::platform

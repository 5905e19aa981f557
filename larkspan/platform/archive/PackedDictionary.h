#pragma once

#include "larkspan/platform/archive/WellFormed.h"
#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Slice.h"

namespace larkspan::platform {

/// The dictionary of a plain map, read when somebody asks for its entries. `bytes` are the map's own.
Dictionary packedDictionary(Slice bytes, const PlainMap& map);

}  // namespace larkspan::platform

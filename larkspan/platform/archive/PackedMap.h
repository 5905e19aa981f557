#pragma once

#include "larkspan/platform/archive/WellFormed.h"
#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Slice.h"

namespace larkspan::platform {

/// The dictionary of a plain map, which stands in `frame`, read when somebody asks for its entries. A small map is copied
/// out of the frame, so that an item which is kept does not keep the whole frame; a large one shares the frame.
Dictionary packedDictionary(const Slice& frame, const PlainMap& map);

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Slice.h"

#include <span>
#include <string_view>

namespace larkspan::platform {

/// Makes decoded dictionaries share the text of these keys instead of copying it. Repetition is harmless;
/// keys beyond `limits::kMaximumInternedKeys` are copied as before.
/// Thread: any, beside decoding.
void internKeys(std::span<const Key> keys);

/// The shared text of an interned key, else a copy of the text.
Slice internedKey(std::string_view text);

}  // namespace larkspan::platform

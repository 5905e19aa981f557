#pragma once

#include "larkspan/platform/base/URL.h"

#include <string_view>

namespace larkspan::platform {

/// The file that marks a folder as a cache, and the bytes it begins with (bford.info/cachedir).
inline constexpr std::string_view kCacheDirTagName = "CACHEDIR.TAG";
inline constexpr std::string_view kCacheDirTagSignature = "Signature: 8a477f597d28d172789f06886806bc55";

/// Whether the folder holds a valid tag: a regular file, not a link, that begins with the signature. A tag is
/// a hint of the application's and no consent to delete. What cannot be read is no tag.
/// Thread: blocks the caller for a few system calls.
bool hasCacheDirTag(const URL& folder);

}  // namespace larkspan::platform

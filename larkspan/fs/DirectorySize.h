#pragma once

#include "larkspan/platform/base/URL.h"

#include <cstdint>
#include <span>

namespace larkspan {

/// Allocated bytes of everything in the folder, but for the excluded children and what lies beneath them: for
/// who reports some of them one by one. Not the folder's own entry. A child is excluded at any depth, when
/// its URL equals a member in spelling: that of the folder's path, "/" and the names down to it, for folders,
/// too, without a "/" at the end.
/// 0 also when the folder cannot be read, of which nothing is logged. `platform::sizeFolder` tells more, and
/// can be watched and cancelled.
/// Thread: blocks the caller for the whole walk.
int64_t LKSSizeDirectoryWithExcludedChildURLs(const platform::URL& folder,
                                              std::span<const platform::URL> excluded = {});

}  // namespace larkspan

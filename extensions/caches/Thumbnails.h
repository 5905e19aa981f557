#pragma once

#include "extensions/caches/CacheDirectory.h"
#include "larkspan/platform/base/Date.h"

namespace larkspan::caches {

/// Thumbnails that nobody has used for this long may go (freedesktop.org's Thumbnail Managing Standard).
inline constexpr int64_t kThumbnailAgeInDays = 30;

/// What of the thumbnails was found, or removed.
struct ThumbnailSum {
  int64_t count = 0;
  /// Allocated.
  int64_t bytes = 0;
  /// Why the first of those that stayed could not be removed.
  std::optional<platform::Error> error;
};

/// Latest date that "old" may mean now.
platform::Date thumbnailAgeLimit();

/// The thumbnails last read and written before the date: the PNG files in the folders of the sizes and of the
/// failures, by access time as far as the mount keeps it. Links are not followed, mounts not entered.
ThumbnailSum oldThumbnails(const CacheDirectory& directory, platform::Date before);
/// Removes exactly these.
ThumbnailSum removeOldThumbnails(const CacheDirectory& directory, platform::Date before);

}  // namespace larkspan::caches

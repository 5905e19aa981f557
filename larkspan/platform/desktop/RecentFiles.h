#pragma once

#include "larkspan/platform/base/Date.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace larkspan::platform {

/// When files were last used, from the list that the desktop's applications share (XBEL as freedesktop.org's
/// desktop-bookmark-spec extends it). A use of a file is one of each folder above it, too.
/// The reader is tolerant: it takes each well-formed "bookmark" tag with a file URL and a date, and skips
/// everything else, so that a list that breaks off, or has something foreign in it, still tells what it can.
/// Owner:  the caller; a value.
/// Thread: any, immutable.
/// Limits: time and memory grow with the text.
class RecentFiles {
 public:
  RecentFiles() = default;
  explicit RecentFiles(std::string_view xbel);

  /// The latest date on which an entry for the path, or for something beneath it, was added, modified or
  /// visited.
  std::optional<Date> lastUsed(std::string_view path) const;
  std::size_t size() const { return uses_.size(); }

 private:
  std::vector<std::pair<std::string, Date>> uses_;  // Paths that end in "/", sorted.
};

}  // namespace larkspan::platform

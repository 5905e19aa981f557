#pragma once

#include "larkspan/platform/base/URL.h"
#include "larkspan/platform/files/WalkProgress.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace larkspan::platform {

/// What a folder was found to hold.
struct FolderSizeResult {
  struct Unreadable {
    std::string path;  ///< Any bytes.
    int error = 0;     ///< An errno.
  };
  static constexpr std::size_t kUnreadableNamed = 16;

  /// 0; ECANCELED when the walk was cancelled; else the errno for which the folder could not be read. Sums of
  /// a walk that did not finish are those of the part it saw.
  int status = 0;
  /// Allocated bytes (512-byte blocks) of everything under the folder, not the folder's own entry; saturates.
  int64_t bytes = 0;
  /// Entries counted, further links to a counted inode included.
  int64_t entries = 0;
  /// Entries that were left out because they could not be read, and the first few of them.
  int64_t unreadable = 0;
  std::vector<Unreadable> firstUnreadable;
  /// Entries that were listed and gone, or another kind of thing, when the walk came to them.
  int64_t vanished = 0;
};

struct FolderSizeOptions {
  /// Children to leave out with all beneath them, as `Exclusions` compares them. Borrowed for the call.
  std::span<const URL> excluded = {};
  WalkProgress* progress = nullptr;
};

/// Sums the allocated sizes of everything under a folder. An inode with several links counts once. Symbolic
/// links count themselves and are not followed, except that `folder` may be a link to a folder. The walk
/// stays on the folder's mount: an entry that something is mounted on is left out. Access times aside,
/// nothing is changed; a tree that changes meanwhile is counted as the walk meets it.
/// Thread:  blocks the caller for the whole walk.
/// Failure: see `FolderSizeResult::status`; EINVAL for what is no file URL.
/// Limits:  any depth, number and names; some 20 descriptors. The path of `folder` itself is bounded by
///          PATH_MAX.
FolderSizeResult sizeFolder(const URL& folder, const FolderSizeOptions& options = {});

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/base/URL.h"
#include "larkspan/platform/files/WalkProgress.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace larkspan::platform {

/// What a folder was found to hold.
struct FolderSizeResult {
  /// An entry that was left out.
  struct LeftOut {
    std::string path;  ///< Any bytes.
    int error = 0;     ///< An errno.
  };
  /// One of the folders that were asked for by `FolderSizeOptions::depth`.
  struct Folder {
    std::string name;        ///< Any bytes; empty for the folder of the walk.
    std::size_t parent = 0;  ///< Index of the folder that holds it, which comes earlier.
    unsigned depth = 0;      ///< 0 for the folder of the walk.
    int64_t bytes = 0;       ///< With all beneath and, but for the folder of the walk, its own entry.
    int64_t entries = 0;
  };
  static constexpr std::size_t kLeftOutNamed = 16;

  /// 0; ECANCELED when the walk was cancelled while something was left; else the errno for which the folder
  /// could not be read. Sums of a walk that did not finish are those of the part it saw.
  int status = 0;
  /// Allocated bytes (512-byte blocks) of everything under the folder, not the folder's own entry; saturates.
  int64_t bytes = 0;
  /// Entries counted, further links to a counted inode included.
  int64_t entries = 0;
  /// Entries that were left out because they could not be read, and the first few of them.
  int64_t unreadable = 0;
  std::vector<LeftOut> firstUnreadable;
  /// Entries that were listed and gone, or another kind of thing, when the walk came to them.
  int64_t vanished = 0;
  std::vector<LeftOut> firstVanished;
  /// In no particular order, except that the folder of the walk is the first; empty for depth 0.
  std::vector<Folder> folders;
};

struct FolderSizeOptions {
  /// Children to leave out with all beneath them, as `Exclusions` compares them. Borrowed for the call.
  std::span<const URL> excluded = {};
  WalkProgress* progress = nullptr;
  /// So many levels of folders beneath are reported one by one.
  unsigned depth = 0;
};

/// Sums the allocated sizes of everything under a folder. An inode with several links counts once, where the
/// walk meets it first. Symbolic links count themselves and are not followed, except that `folder` may be a
/// link to a folder. The walk stays on the folder's mount: an entry that something is mounted on is left out.
/// Access times aside, nothing is changed; a tree that changes meanwhile is counted as the walk meets it.
/// Thread:  blocks the caller for the whole walk. A large one is shared with threads that are started for it,
///          at the caller's priority, and end with it.
/// Failure: see `FolderSizeResult::status`; EINVAL for what is no file URL.
/// Limits:  any depth, number and names; half of the descriptors that the process may have. The path of
///          `folder` itself is bounded by PATH_MAX.
FolderSizeResult sizeFolder(const URL& folder, const FolderSizeOptions& options = {});

}  // namespace larkspan::platform

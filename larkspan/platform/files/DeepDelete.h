#pragma once

#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/base/URL.h"
#include "larkspan/platform/files/Directory.h"
#include "larkspan/platform/files/WalkProgress.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace larkspan::platform {

/// Domain of the errors of a deletion as a whole; the codes are those of `DeletionErrorCode`.
inline constexpr std::string_view kDeletionErrorDomain = "corvane.larkspan.deletion";

enum class DeletionErrorCode : int64_t {
  cancelled = -128,  ///< Stopped through `WalkProgress::cancel()` with something left; the rest is gone.
  incomplete = 1,    ///< Some entries could not go.
};

/// In the user information of a deletion's error: how many entries went, how many could not go of themselves,
/// and, unless cancelled, the POSIX error of the first that could not, which names its path.
inline constexpr Key kRemovedCountKey = "RemovedCount";
inline constexpr Key kFailedCountKey = "FailedCount";
inline constexpr Key kFirstCauseKey = "FirstCause";

struct DeepDeleteResult {
  /// Entries that went: files, links and folders, the listed items included.
  int64_t removed = 0;
  /// Entries that could not go; the folders that stay only because of them are not counted.
  int64_t failed = 0;
  /// Nothing when all went.
  std::optional<Error> error;
};

struct DeepDeleteOptions {
  WalkProgress* progress = nullptr;
  FolderOpening opening = FolderOpening::automatic;
};

/// Removes each item together with everything beneath it, for good.
///
/// The folder that holds an item is looked up once; from there on every step is taken from an open folder to
/// one name in it, never along a path and never through a link. A folder that is swapped for a link meanwhile
/// cannot lead the walk out of the tree: the link itself goes. Mounts are not crossed, and what something is
/// mounted on stays, as do "/", and items that end in "." or "..". After an entry that cannot go the rest
/// goes on; entries that appear meanwhile go too, within reason.
/// Thread:  blocks the caller for the whole walk. A large one is shared with threads that are started for it,
///          at the caller's priority, and end with it.
/// Failure: one error for the batch. An item that is not there, or is no file URL, is a failure; an entry of
///          the tree that somebody else removes first is not.
/// Limits:  any depth, number and names; half of the descriptors that the process may have. The path of an
///          item itself is bounded by PATH_MAX.
DeepDeleteResult deepDelete(std::span<const URL> items, const DeepDeleteOptions& options = {});

/// As `deepDelete` for everything in a folder but the folder itself and its entries of the names in `keep`.
/// The folder must not be a link.
DeepDeleteResult emptyFolder(const URL& folder, std::span<const std::string> keep = {},
                             const DeepDeleteOptions& options = {});

}  // namespace larkspan::platform

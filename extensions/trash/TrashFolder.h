#pragma once

#include "larkspan/platform/base/Date.h"
#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/base/URL.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace larkspan::trash {

/// Domain of this extension's own errors; all have the code 1 and a text for people.
inline constexpr std::string_view kTrashErrorDomain = "corvane.larkspan.trash";

/// One thing in a trash folder.
struct TrashEntry {
  platform::URL url;  ///< Where it lies now.
  std::string
      originalName;  ///< Any bytes; that of the file in the trash where nothing tells the original one.
  std::string originalPath;  ///< Any bytes; empty where nothing tells it.
  platform::Date deleted;
  /// Tells it from another thing that lies there later: an inode, its birth and the time when it came.
  std::string identity;
  bool isFolder = false;
  /// Allocated bytes, for a folder those of everything in it.
  int64_t bytes = 0;

  friend bool operator==(const TrashEntry&, const TrashEntry&) = default;
};

/// A trash folder of the user (freedesktop.org's trash-spec, version 1.0): "files" holds what was deleted,
/// "info" a file for each that tells where it came from. What lies in "files" without an info file, such as
/// what an interrupted restoration left behind, is an entry all the same. An info file alone is none: it
/// belongs to something that is just being moved in, or that is gone.
/// Owner:   the caller.
/// Thread:  any, one at a time; everything reads the disk and blocks.
/// Limits:  a folder that links or other mounts lead out of is passed over, so that whoever else may write to
///          a volume cannot lead a deletion astray.
class TrashFolder {
 public:
  /// The user's own, "Trash" in $XDG_DATA_HOME, and those on other volumes: ".Trash/UID" where ".Trash" is
  /// sticky and no link, and ".Trash-UID"; both must belong to the user.
  static std::vector<TrashFolder> all();
  /// The folders of the info files, whether they exist or not. A deletion changes one before the entry comes,
  /// which may take long, and nothing there tells when it has come or that it grows; a restoration may change
  /// it before the entry goes or after.
  static std::vector<std::string> watchedPaths();

  const std::string& path() const { return place_.path; }
  std::vector<TrashEntry> entries() const;
  /// Whether an info file of the last hour has no entry yet. To be asked before `entries()`: what comes in
  /// between is then awaited in vain rather than missed.
  bool awaitsEntry() const;
  /// The entry at the URL, from wherever that comes, if it is one of this folder's and still the same. A
  /// folder is not sized.
  std::optional<TrashEntry> find(const platform::URL& url) const;
  /// Deletes an entry of this folder, its content first and its info file last: what could not go can still
  /// be restored.
  std::optional<platform::Error> remove(const TrashEntry& entry) const;
  /// Removes info files of nothing that are older than an hour.
  void removeStrayInfo() const;

 private:
  struct Place {
    std::string volume;  ///< Where it is mounted; empty for the user's own.
    std::string path;
  };
  static std::vector<Place> places();
  static std::optional<TrashFolder> open(Place place);

  std::optional<TrashEntry> look(const std::string& name) const;
  std::vector<std::string> namesIn(int folder) const;
  /// The info files of nothing, and when they were written.
  std::vector<std::pair<std::string, platform::Date>> strayInfo() const;
  /// The entry by way of the open folder.
  platform::URL exactly(const std::string& name) const;

  Place place_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  platform::Descriptor files_, info_;
};

}  // namespace larkspan::trash

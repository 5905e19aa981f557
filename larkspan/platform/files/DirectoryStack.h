#pragma once

#include "larkspan/platform/files/Directory.h"

#include <deque>
#include <string>
#include <string_view>

namespace larkspan::platform {

/// The folders between the start of a walk and where it is now: the common ground of sizing and deletion.
///
/// A walk reads a folder to its end, keeps the names of the folders in it as pending, and enters them one
/// after another, so that no read position has to survive. Only the start and the lowest few levels stay
/// open; a level that was closed is reached again, once it is needed, through ".." of the level last left, or
/// by its names from the nearest open one, and in both cases only if device, inode, mount and birth time are
/// still the same. So a tree may be any number of levels deep, and a folder that somebody moves or swaps
/// meanwhile leads the walk nowhere else.
///
/// What is pending in the folders further up can be split off, for another stack to start with.
///
/// Thread: one at a time.
/// Limits: at most `kMaximumDescriptors`; memory for the names on the way and those pending.
class DirectoryStack {
 public:
  static constexpr std::size_t kOpenLevels = 16;
  static constexpr std::size_t kMaximumDescriptors = kOpenLevels + 6;

  /// Where a walk starts. A folder opened with O_PATH will do if it is not read.
  struct Start {
    Descriptor folder;
    std::string path;  ///< For reports.
    std::string pending = {};
  };
  DirectoryStack(Start start, uint64_t mount, FolderOpening opening);

  /// Number of levels, the start included.
  std::size_t depth() const { return levels_.size(); }
  /// The path of the entry `name` of the top folder, of the top folder itself if that is empty, for reports.
  std::string pathOf(std::string_view name) const;
  /// The top folder's name in the one above it.
  const std::string& name() const { return levels_.back().name; }
  uint64_t mount() const { return mount_; }

  /// The top folder's descriptor, or -1 when it had to be closed and is no longer where it was.
  int top();
  /// Opens the folder `name` of the top folder and puts it on top; `facts` become its facts. Returns 0 or an
  /// errno as `openFolderAt` does, ESTALE if the top folder is lost.
  int enter(const std::string& name, struct statx& facts);
  /// Takes the top level away; not for the start.
  void leave();

  /// Whether these entries of the top folder are known to be the last, so that nobody need ask for more.
  bool areLast(std::string_view entries) const { return isWellKnown_ && DirectoryReader::tellEnd(entries); }

  /// Notes the name of a folder of the top folder for later.
  void addPending(const char* name);
  bool hasPending() const { return !levels_.back().pending.empty(); }
  /// Moves one pending name of the top folder to `name`; false when there is none.
  bool takePending(std::string& name);
  /// A start at the top folder with nothing pending. False when no descriptor is to be had.
  bool startAtTop(Start& start) { return startAt(levels_.size() - 1, start); }
  /// Moves half of what is pending in the highest open folder that has something to a start at that folder,
  /// whose level (0 for this stack's start) becomes `level`. False when there is nothing to spare.
  bool split(Start& start, std::size_t& level);

 private:
  struct Identity {
    uint64_t device = 0, inode = 0, mount = 0;
    int64_t birthSeconds = 0;
    uint32_t birthNanoseconds = 0;
    bool operator==(const Identity&) const = default;
  };
  struct Level {
    Descriptor directory;
    Identity identity;  // Unknown for the start, which stays open.
    std::string name;
    std::string pending;  // Names, each preceded by a NUL.
    bool isLost = false;
  };
  static Identity identityOf(const struct statx& facts);
  static bool is(const Descriptor& folder, const Identity& identity);
  bool startAt(std::size_t level, Start& start) const;
  std::string pathOfLevel(std::size_t level) const;
  bool climb();
  bool descend();

  const std::string path_;
  const FolderOpening opening_;
  const uint64_t mount_;
  const bool isWellKnown_;    // The file system, of which a mount has one.
  std::deque<Level> levels_;  // Growing moves none of them.
  // The folder last left, and the level at which it was.
  Descriptor left_;
  std::size_t leftLevel_ = 0;
  std::size_t firstPending_ = 0;  // Nothing is pending in the levels before.
};

}  // namespace larkspan::platform

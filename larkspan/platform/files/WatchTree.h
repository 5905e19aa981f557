#pragma once

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/files/Directory.h"
#include "larkspan/platform/files/EventStream.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

struct inotify_event;

namespace larkspan::platform {

/// The folders beneath a set of roots, each with a watch of one inotify(7) instance, and what its events mean.
///
/// A watch belongs to an inode: it survives every rename, and asking for it again by whatever path gives the
/// same number. So a folder that moved is noticed by its watch turning up elsewhere, and one that moved out by
/// its watch no more turning up where it was. A folder is watched first and listed then, so that whatever
/// appears in it meanwhile is in the list or in the queue. Only that order matters: whatever the events of one
/// folder promise, a look at the disk has the last word.
///
/// A watch knows its parent and its name, and paths are spelled out when something is told.
/// Owner:  the caller.
/// Thread: one at a time.
/// Limits: any depth and names; some 40 descriptors while a walk runs.
class WatchTree {
 public:
  /// Gets a path and its `FileEventFlag`s.
  using Tell = std::function<void(const std::string& path, uint32_t flags)>;

  /// Roots are absolute paths without a trailing slash; "" is "/". Nothing is watched before `checkRoots()`.
  WatchTree(int inotify, std::vector<std::string> roots, bool tellsFolders, Tell tell);

  /// Watches what stands at the roots now. A root that has become another thing is told, unless `isFirst`.
  void checkRoots(bool isFirst = false);
  /// Watches exactly what is there now and tells the roots to be looked at, with the flags of what was lost.
  void rescan();
  /// Tells what an event means, and watches what it shows. Events come in the kernel's order.
  void handle(const inotify_event& event);
  /// After some events: lets go of what only served to take them in.
  void rest() { forgetPaths(); }

  /// Notes that events were lost: `kEventUserDropped` or `kEventKernelDropped`.
  void loseEvents(uint32_t cause) { lost_ |= kEventMustScanSubdirectories | cause; }
  /// Whether events were lost, so that a `rescan()` is due.
  bool hasLostEvents() const { return lost_ != 0; }
  /// Whether a root's watch was lost, so that `checkRoots()` is due.
  bool hasLostRoot() const { return lostRoot_; }
  /// The errno for which folders are not watched that should be: ENOSPC for watches, or a want of descriptors
  /// or memory. 0 when all are; a `rescan()` finds out.
  int shortage() const { return shortage_; }
  /// The first root that stands there and cannot be watched, as the process may not read it, and the errno; the
  /// errno is 0 when there is none.
  std::pair<std::string, int> refusal() const;
  std::vector<std::string> rootPaths() const;

 private:
  using Number = int;  // Of a watch; they count from 1.
  static constexpr Number kNone = 0;
  struct Root {
    std::string path;
    Number number = kNone;
    uint64_t mount = 0;
    int refusal = 0;           // An errno.
    bool countsLinks = false;  // A folder's link count tells how many folders it holds.
  };
  struct Watch {
    Number parent = kNone, firstChild = kNone, next = kNone, previous = kNone;
    unsigned round = 0;  // When it was last met.
    unsigned root = 0;   // Where there is no parent.
    std::string name;
  };
  struct Folder {
    int descriptor;
    Number number;
    const Root& root;
  };

  void forgetPaths();
  const Root& rootOf(Number number) const;
  std::string pathOf(Number number) const;
  Descriptor open(Number number);
  void noteShortage(int errorNumber);

  int watchExactly(int folder, const char* name) const;
  Number watch(const Folder& folder, const std::string& path, const char* name, bool& mayHoldFolders);
  bool place(Number number, Number parent, const char* name);
  void link(Number number, Number parent);
  void unlink(Number number);
  void drop(Number number);

  void list(const Folder& folder, std::string& path, bool tells, unsigned level);
  void walk(Number number, bool tells);
  void adopt(Number parent, const char* name, bool appeared);
  void checkRoot(unsigned index, bool isFirst);
  bool isInPlace(Number number);
  void tell(Number folder, std::string_view name, uint32_t flags);

  const int inotify_;
  const bool tellsFolders_;
  const Tell tell_;
  std::vector<Root> roots_;
  std::unordered_map<Number, Watch> watches_;
  std::vector<Number> deep_;  // Too far down to be listed by the walk that met them.
  unsigned round_ = 0;
  uint32_t lost_ = 0;  // What to tell of lost events.
  bool lostRoot_ = false;
  int shortage_ = 0;
  DirectoryReader reader_;
  // The last folders that were told of and opened; neighbouring events are often of the same.
  Number told_ = kNone, opened_ = kNone;
  std::string toldPath_;
  Descriptor openedFolder_;
};

}  // namespace larkspan::platform

#include "larkspan/platform/files/WatchTree.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/vfs.h>

namespace larkspan::platform {
namespace {

constexpr uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_ATTRIB |
                             IN_MOVE_SELF | IN_EXCL_UNLINK;
constexpr uint32_t kFolderItself = kEvents | IN_ONLYDIR | IN_DONT_FOLLOW;
/// Folders that a walk keeps open above the one it is in.
constexpr unsigned kOpenLevels = 32;

uint32_t flagsOf(uint32_t mask) {
  uint32_t flags = 0;
  if (mask & IN_CREATE) flags |= kEventItemCreated;
  if (mask & IN_DELETE) flags |= kEventItemRemoved;
  if (mask & IN_ATTRIB) flags |= kEventItemMetadataModified;
  if (mask & (IN_MOVED_FROM | IN_MOVED_TO)) flags |= kEventItemRenamed;
  if (mask & IN_MODIFY) flags |= kEventItemModified;
  return flags;
}

/// Where a folder with two links (its name and its ".") is known to hold no other folder.
bool countsLinks(int folder) {
  struct statfs facts;
  if (fstatfs(folder, &facts) != 0) return false;
  constexpr auto kXfs = 0x58465342;
  return facts.f_type == EXT4_SUPER_MAGIC || facts.f_type == TMPFS_MAGIC || facts.f_type == kXfs;
}

const char* spelled(const std::string& root) { return root.empty() ? "/" : root.c_str(); }

}  // namespace

WatchTree::WatchTree(int inotify, std::vector<std::string> roots, bool tellsFolders, Tell tell)
    : inotify_(inotify), tellsFolders_(tellsFolders), tell_(std::move(tell)) {
  for (std::string& path : roots) roots_.push_back({std::move(path)});
}

void WatchTree::forgetPaths() {
  told_ = opened_ = kNone;
  openedFolder_.reset();
}

std::vector<std::string> WatchTree::rootPaths() const {
  std::vector<std::string> result;
  for (const Root& root : roots_) result.emplace_back(spelled(root.path));
  return result;
}

const WatchTree::Root& WatchTree::rootOf(Number number) const {
  const Watch* watch = &watches_.at(number);
  while (watch->parent != kNone) watch = &watches_.at(watch->parent);
  return roots_[watch->root];
}

std::string WatchTree::pathOf(Number number) const {
  std::vector<const std::string*> names;
  const Watch* watch = &watches_.at(number);
  for (; watch->parent != kNone; watch = &watches_.at(watch->parent)) names.push_back(&watch->name);
  std::string path = roots_[watch->root].path;
  for (auto name = names.rbegin(); name != names.rend(); ++name) path.append(1, '/').append(**name);
  return path;
}

/// Step by step, so that neither a link nor a mount on the way leads elsewhere.
Descriptor WatchTree::open(Number number) {
  std::vector<const std::string*> names;
  const Watch* watch = &watches_.at(number);
  for (; watch->parent != kNone; watch = &watches_.at(watch->parent)) names.push_back(&watch->name);
  const Root& root = roots_[watch->root];
  Descriptor folder(::open(spelled(root.path), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
  if (!folder) noteShortage(errno);
  for (auto name = names.rbegin(); folder && name != names.rend(); ++name) {
    Descriptor next;
    noteShortage(openFolderAt(folder.get(), (*name)->c_str(), root.mount, FolderOpening::automatic, next));
    folder = std::move(next);
  }
  return folder;
}

void WatchTree::noteShortage(int errorNumber) {
  if (errorNumber == ENOSPC || errorNumber == EMFILE || errorNumber == ENFILE || errorNumber == ENOMEM)
    shortage_ = errorNumber;
}

int WatchTree::watchExactly(int folder, const char* name) const {
  char path[64 + NAME_MAX];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d/%s", folder, name);
  return inotify_add_watch(inotify_, path, kFolderItself);
}

/// Watches the folder `name` of a folder. The path is the quick way; somebody may have turned it aside
/// meanwhile, which a later event heals unless the watch of another folder of ours were taken for this one's.
WatchTree::Number WatchTree::watch(const Folder& folder, const std::string& path, const char* name,
                                   bool& mayHoldFolders) {
  int number = path.size() < PATH_MAX ? inotify_add_watch(inotify_, path.c_str(), kFolderItself)
                                      : watchExactly(folder.descriptor, name);
  const auto known = watches_.find(number);
  const bool isKnown = known != watches_.end();
  if (isKnown && (known->second.parent != folder.number || known->second.name != name))
    number = watchExactly(folder.descriptor, name);
  if (number < 0) {
    noteShortage(errno);
    return kNone;
  }
  struct statx facts;
  if (factsAt(folder.descriptor, name, facts) != 0 || mountOf(facts) != folder.root.mount) {
    if (!watches_.contains(number)) inotify_rm_watch(inotify_, number);
    return kNone;
  }
  mayHoldFolders = facts.stx_nlink != 2 || !folder.root.countsLinks;
  return place(number, folder.number, name) ? number : kNone;
}

bool WatchTree::place(Number number, Number parent, const char* name) {
  const auto [found, isNew] = watches_.try_emplace(number);
  Watch& watch = found->second;
  watch.round = round_;
  if (!isNew) {
    if (watch.parent == parent && watch.name == name) return true;
    // Folders that change places in a way that the events so far do not explain.
    for (Number above = parent; above != kNone; above = watches_.at(above).parent) {
      if (above == number) return loseEvents(0), false;
    }
    unlink(number);
    forgetPaths();
  }
  watch.name = name;
  link(number, parent);
  return true;
}

void WatchTree::link(Number number, Number parent) {
  Watch& watch = watches_.at(number);
  watch.parent = parent;
  watch.previous = kNone;
  if (parent == kNone) return;
  Watch& above = watches_.at(parent);
  watch.next = std::exchange(above.firstChild, number);
  if (watch.next != kNone) watches_.at(watch.next).previous = number;
}

void WatchTree::unlink(Number number) {
  Watch& watch = watches_.at(number);
  if (watch.previous != kNone) {
    watches_.at(watch.previous).next = watch.next;
  } else if (watch.parent != kNone) {
    watches_.at(watch.parent).firstChild = watch.next;
  }
  if (watch.next != kNone) watches_.at(watch.next).previous = watch.previous;
  watch.parent = watch.next = watch.previous = kNone;
}

/// Forgets a folder and all beneath it.
void WatchTree::drop(Number number) {
  unlink(number);
  forgetPaths();
  for (std::vector<Number> left{number}; !left.empty();) {
    const Number at = left.back();
    left.pop_back();
    for (Number child = watches_.at(at).firstChild; child != kNone; child = watches_.at(child).next)
      left.push_back(child);
    watches_.erase(at);
    inotify_rm_watch(inotify_, at);  // The kernel may have been first.
    for (const Root& root : roots_) lostRoot_ |= root.number == at;
  }
}

void WatchTree::list(const Folder& folder, std::string& path, bool tells, unsigned level) {
  std::string names;  // Of folders, each with its NUL.
  reader_.read(folder.descriptor, [&](const char* name, unsigned char type) {
    if (tells) tell(folder.number, name, kEventItemCreated);
    struct statx facts;
    if (type == DT_UNKNOWN && factsAt(folder.descriptor, name, facts) == 0 && S_ISDIR(facts.stx_mode))
      type = DT_DIR;
    if (type == DT_DIR) names.append(name, std::strlen(name) + 1);
    return true;
  });
  const std::size_t length = path.size();
  for (const char* name = names.data(); name != names.data() + names.size(); name += std::strlen(name) + 1) {
    path.resize(length);
    path.append(1, '/').append(name);
    bool mayHoldFolders = true;
    const Number number = watch(folder, path, name, mayHoldFolders);
    if (number == kNone || (!tells && !mayHoldFolders)) continue;
    if (level == kOpenLevels) {
      deep_.push_back(number);
      continue;
    }
    Descriptor descriptor;
    noteShortage(
        openFolderAt(folder.descriptor, name, folder.root.mount, FolderOpening::automatic, descriptor));
    if (descriptor) list({descriptor.get(), number, folder.root}, path, tells, level + 1);
  }
}

void WatchTree::walk(Number number, bool tells) {
  for (deep_.push_back(number); !deep_.empty();) {
    const Number at = deep_.back();
    deep_.pop_back();
    if (!watches_.contains(at)) continue;
    const Descriptor folder = open(at);
    std::string path = pathOf(at);
    if (folder) list({folder.get(), at, rootOf(at)}, path, tells, 0);
  }
}

/// Takes in a folder that an event names: one that appeared, or whose permissions may let it be read now.
void WatchTree::adopt(Number parent, const char* name, bool appeared) {
  if (opened_ != parent) {
    openedFolder_ = open(parent);
    opened_ = parent;
  }
  if (!openedFolder_) return;
  const std::size_t before = watches_.size();
  bool mayHoldFolders;
  const Number number =
      watch({openedFolder_.get(), parent, rootOf(parent)}, pathOf(parent) + '/' + name, name, mayHoldFolders);
  if (number != kNone && (appeared || watches_.size() > before)) walk(number, true);
}

bool WatchTree::isInPlace(Number number) {
  const Watch& watch = watches_.at(number);
  const Descriptor parent = open(watch.parent);
  if (!parent) return false;
  const int found = watchExactly(parent.get(), watch.name.c_str());
  if (found >= 0 && !watches_.contains(found)) inotify_rm_watch(inotify_, found);  // Its own event follows.
  return found == number;
}

void WatchTree::checkRoots(bool isFirst) {
  lostRoot_ = false;
  for (unsigned index = 0; index < roots_.size(); ++index) checkRoot(index, isFirst);
}

void WatchTree::checkRoot(unsigned index, bool isFirst) {
  Root& root = roots_[index];
  int number = inotify_add_watch(inotify_, spelled(root.path), kEvents);
  root.refusal = 0;
  if (number < 0) {
    noteShortage(errno);
    if (shortage_ != errno && errno != ENOENT && errno != ENOTDIR) root.refusal = errno;
    number = kNone;
  }
  if (number == root.number) return;
  const auto old = watches_.find(std::exchange(root.number, number));
  // One that also lies beneath another root is that one's affair.
  if (old != watches_.end() && old->second.parent == kNone) drop(old->first);
  if (number != kNone) {
    struct statx facts;
    const Descriptor here(::open(spelled(root.path), O_PATH | O_CLOEXEC));
    root.mount = here && factsAt(here.get(), "", facts) == 0 ? mountOf(facts) : 0;
    root.countsLinks = here && countsLinks(here.get());
    if (const auto [found, isNew] = watches_.try_emplace(number); isNew) found->second.root = index;
    walk(number, false);
  }
  if (!isFirst) tell_(spelled(root.path), kEventRootChanged | kEventMustScanSubdirectories);
}

std::pair<std::string, int> WatchTree::refusal() const {
  for (const Root& root : roots_) {
    if (root.refusal) return {spelled(root.path), root.refusal};
  }
  return {};
}

void WatchTree::rescan() {
  ++round_;
  const uint32_t flags = kEventMustScanSubdirectories | std::exchange(lost_, 0);
  shortage_ = 0;
  checkRoots(true);
  for (const Root& root : roots_) {
    const auto found = watches_.find(root.number);
    if (found == watches_.end()) continue;
    found->second.round = round_;
    walk(root.number, false);
  }
  std::vector<Number> gone;
  for (const auto& [number, watch] : watches_) {
    if (watch.round != round_) gone.push_back(number);
  }
  for (const Number number : gone) {
    if (watches_.contains(number)) drop(number);
  }
  for (const std::string& path : rootPaths()) tell_(path, flags);
}

void WatchTree::handle(const inotify_event& event) {
  if (event.mask & IN_Q_OVERFLOW) loseEvents(kEventKernelDropped);
  const Number number = event.wd;
  const auto found = watches_.find(number);
  if (found == watches_.end()) return;
  if (event.mask & IN_IGNORED) return drop(number);
  const bool isRoot = found->second.parent == kNone;
  const uint32_t flags = flagsOf(event.mask);
  if (event.len != 0) {
    tell(number, event.name, flags);
    if ((event.mask & IN_ISDIR) && (event.mask & (IN_CREATE | IN_MOVED_TO | IN_ATTRIB)))
      adopt(number, event.name, !(event.mask & IN_ATTRIB));
  } else if (event.mask & IN_MOVE_SELF) {
    if (isRoot) {
      lostRoot_ = true;
    } else if (!isInPlace(number)) {
      drop(number);
    }
  } else if (isRoot && flags != 0) {
    // Of other folders their parent's watch says the same.
    tell_(spelled(roots_[found->second.root].path), flags);
  }
}

void WatchTree::tell(Number folder, std::string_view name, uint32_t flags) {
  if (told_ != folder) {
    toldPath_ = pathOf(folder);
    told_ = folder;
  }
  if (tellsFolders_) return tell_(spelled(toldPath_), flags);
  const std::size_t length = toldPath_.size();
  toldPath_.append(1, '/').append(name);
  tell_(toldPath_, flags);
  toldPath_.resize(length);
}

}  // namespace larkspan::platform

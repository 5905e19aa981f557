#include "larkspan/platform/files/DirectoryStack.h"

#include <algorithm>
#include <utility>

#include <fcntl.h>
#include <sys/sysmacros.h>

namespace larkspan::platform {

namespace {

void append(std::string& path, std::string_view name) {
  if (!path.ends_with('/')) path += '/';
  path += name;
}

}  // namespace

DirectoryStack::DirectoryStack(Start start, uint64_t mount, FolderOpening opening)
    : path_(std::move(start.path)),
      opening_(opening),
      mount_(mount),
      isWellKnown_(isInWellKnownFileSystem(start.folder.get())) {
  Level& level = levels_.emplace_back();
  level.directory = std::move(start.folder);
  level.pending = std::move(start.pending);
}

std::string DirectoryStack::pathOfLevel(std::size_t level) const {
  std::string path = path_;
  for (std::size_t i = 1; i <= level; ++i) append(path, levels_[i].name);
  return path;
}

std::string DirectoryStack::pathOf(std::string_view name) const {
  std::string path = pathOfLevel(levels_.size() - 1);
  if (!name.empty()) append(path, name);
  return path;
}

DirectoryStack::Identity DirectoryStack::identityOf(const struct statx& facts) {
  Identity identity{::makedev(facts.stx_dev_major, facts.stx_dev_minor), facts.stx_ino, mountOf(facts), 0, 0};
  if (facts.stx_mask & STATX_BTIME) {
    identity.birthSeconds = facts.stx_btime.tv_sec;
    identity.birthNanoseconds = facts.stx_btime.tv_nsec;
  }
  return identity;
}

bool DirectoryStack::is(const Descriptor& folder, const Identity& identity) {
  struct statx facts;
  return folder && factsAt(folder.get(), "", facts) == 0 && identityOf(facts) == identity;
}

int DirectoryStack::top() {
  Level& level = levels_.back();
  if (!level.directory && !level.isLost) level.isLost = !climb() && !descend();
  // What another file system thinks of removing an open folder is not known.
  if (level.directory && !isWellKnown_) left_.reset();
  return level.directory.get();
}

bool DirectoryStack::climb() {
  // So many that a path of them is far from PATH_MAX.
  constexpr std::size_t kStepsAtOnce = 1000;
  int from = left_.get();
  Descriptor folder;
  for (std::size_t steps = leftLevel_ - (levels_.size() - 1); from >= 0 && steps > 0;) {
    const std::size_t count = std::min(steps, kStepsAtOnce);
    std::string path;
    for (std::size_t i = 0; i < count; ++i) path += "../";
    folder = Descriptor(::openat(from, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    from = folder.get();
    steps -= count;
  }
  if (!is(folder, levels_.back().identity)) return false;
  levels_.back().directory = std::move(folder);
  return true;
}

bool DirectoryStack::descend() {
  std::size_t open = levels_.size() - 1;
  while (!levels_[open].directory) --open;
  Descriptor reached;
  int folder = levels_[open].directory.get();
  for (std::size_t i = open + 1; i < levels_.size(); ++i) {
    Descriptor next;
    if (openFolderAt(folder, levels_[i].name.c_str(), mount_, opening_, next) != 0) return false;
    if (!is(next, levels_[i].identity)) return false;
    reached = std::move(next);
    folder = reached.get();
  }
  levels_.back().directory = std::move(reached);
  return true;
}

int DirectoryStack::enter(const std::string& name, struct statx& facts) {
  const int parent = top();
  if (parent < 0) return ESTALE;
  Descriptor directory;
  const auto open = [&] { return enterFolderAt(parent, name.c_str(), mount_, opening_, directory, facts); };
  int error = open();
  if (error == EMFILE || error == ENFILE) {
    for (std::size_t i = 1; i + 1 < levels_.size(); ++i) levels_[i].directory.reset();
    left_.reset();
    error = open();
  }
  if (error) return error;
  Level& level = levels_.emplace_back();
  level.directory = std::move(directory);
  // If it was looked at first, and another put there before it was opened, this level is lost once it is closed.
  level.identity = identityOf(facts);
  level.name = name;
  if (levels_.size() > kOpenLevels + 1) levels_[levels_.size() - 1 - kOpenLevels].directory.reset();
  return 0;
}

void DirectoryStack::leave() {
  Descriptor child = std::move(levels_.back().directory);
  levels_.pop_back();
  firstPending_ = std::min(firstPending_, levels_.size() - 1);
  if (!child) return;
  left_ = std::move(child);
  leftLevel_ = levels_.size();
}

void DirectoryStack::addPending(const char* name) {
  std::string& pending = levels_.back().pending;
  pending += '\0';
  pending += name;
}

bool DirectoryStack::takePending(std::string& name) {
  std::string& pending = levels_.back().pending;
  if (pending.empty()) return false;
  const std::size_t start = pending.rfind('\0');
  name.assign(pending, start + 1);
  pending.resize(start);
  return true;
}

bool DirectoryStack::split(Start& start, std::size_t& level) {
  const std::size_t last = levels_.size() - 1;
  while (firstPending_ < last && levels_[firstPending_].pending.empty()) ++firstPending_;
  level = firstPending_;
  // Beneath the start only the last few may be open.
  if (!levels_[level].directory && last > kOpenLevels) level = std::max(level, last - kOpenLevels);
  while (level < last && (!levels_[level].directory || levels_[level].pending.empty())) ++level;
  std::string& pending = levels_[level].pending;
  // A name begins behind a NUL. One that is alone goes, too, while there is something further down.
  std::size_t middle = pending.find('\0', pending.size() / 2);
  if (middle == pending.npos) middle = pending.rfind('\0');
  if (middle == pending.npos || (middle == 0 && level == last)) return false;
  if (!startAt(level, start)) return false;
  start.pending = pending.substr(middle);
  pending.resize(middle);
  return true;
}

bool DirectoryStack::startAt(std::size_t level, Start& start) const {
  const Descriptor& folder = levels_[level].directory;
  if (!folder) return false;
  // No duplicate: threads that use one open file wait for each other's cache lines.
  start.folder = Descriptor(::openat(folder.get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (start.folder) start.path = pathOfLevel(level);
  return bool(start.folder);
}

}  // namespace larkspan::platform

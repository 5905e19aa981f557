#include "larkspan/platform/files/DirectoryStack.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

namespace larkspan::platform {

DirectoryStack::DirectoryStack(Descriptor root, std::string path, const struct statx& facts,
                               FolderOpening opening)
    : path_(std::move(path)), opening_(opening), mount_(mountOf(facts)) {
  levels_.emplace_back().directory = std::move(root);
}

std::string DirectoryStack::pathOf(std::string_view name) const {
  std::string path = path_;
  const auto append = [&path](std::string_view component) {
    if (!path.ends_with('/')) path += '/';
    path += component;
  };
  for (std::size_t i = 1; i < levels_.size(); ++i) append(levels_[i].name);
  if (!name.empty()) append(name);
  return path;
}

bool DirectoryStack::identify(const Descriptor& folder, Identity& identity) {
  struct statx facts;
  if (factsAt(folder.get(), "", facts) != 0) return false;
  identity = {::makedev(facts.stx_dev_major, facts.stx_dev_minor), facts.stx_ino, mountOf(facts), 0, 0};
  if (facts.stx_mask & STATX_BTIME) {
    identity.birthSeconds = facts.stx_btime.tv_sec;
    identity.birthNanoseconds = facts.stx_btime.tv_nsec;
  }
  return true;
}

bool DirectoryStack::is(const Descriptor& folder, const Identity& identity) {
  Identity found;
  return folder && identify(folder, found) && found == identity;
}

void DirectoryStack::close(Level& level) {
  // A level that cannot be told from others later has to stay open.
  if (level.directory && identify(level.directory, level.identity)) level.directory.reset();
}

int DirectoryStack::top() {
  Level& level = levels_.back();
  if (!level.directory && !level.isLost) level.isLost = !reopenTop();
  return level.directory.get();
}

bool DirectoryStack::reopenTop() {
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
  // Before opening, because opening the place of an automount would mount it.
  if (const int error = factsAt(parent, name.c_str(), facts)) return error;
  if (mountOf(facts) != mount_) return EXDEV;
  if (!S_ISDIR(facts.stx_mode)) return ENOTDIR;
  Descriptor directory;
  int error = openFolderAt(parent, name.c_str(), mount_, opening_, directory);
  if (error == EMFILE || error == ENFILE) {
    for (std::size_t i = 1; i + 1 < levels_.size(); ++i) close(levels_[i]);
    error = openFolderAt(parent, name.c_str(), mount_, opening_, directory);
  }
  if (error) return error;
  Level& level = levels_.emplace_back();
  level.directory = std::move(directory);
  level.name = name;
  if (levels_.size() > kOpenLevels + 1) close(levels_[levels_.size() - 1 - kOpenLevels]);
  return 0;
}

void DirectoryStack::leave() {
  const Level child = std::move(levels_.back());
  levels_.pop_back();
  Level& parent = levels_.back();
  if (parent.directory || !child.directory) return;
  Descriptor above(::openat(child.directory.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (is(above, parent.identity)) parent.directory = std::move(above);
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

}  // namespace larkspan::platform

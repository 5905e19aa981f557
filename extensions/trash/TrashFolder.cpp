#include "extensions/trash/TrashFolder.h"

#include "extensions/trash/MountPoints.h"
#include "extensions/trash/Texts.h"
#include "extensions/trash/TrashInfo.h"
#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/files/DeepDelete.h"
#include "larkspan/platform/files/Directory.h"
#include "larkspan/platform/files/FolderSize.h"
#include "larkspan/platform/process/UserFolders.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace larkspan::trash {

using platform::Date;
using platform::Descriptor;
using platform::Error;
using platform::URL;

namespace {

constexpr int64_t kStrayAfterSeconds = 60 * 60;

/// The folder beneath another, on its mount; none if it is a link.
Descriptor folderIn(const Descriptor& parent, const std::string& name) {
  struct statx facts;
  Descriptor result;
  if (parent && platform::factsAt(parent.get(), "", facts) == 0) {
    platform::openFolderAt(parent.get(), name.c_str(), platform::mountOf(facts),
                           platform::FolderOpening::automatic, result);
  }
  return result;
}

}  // namespace

std::vector<TrashFolder::Place> TrashFolder::places() {
  std::vector<Place> result;
  if (const std::string data = platform::userDataFolder(); !data.empty())
    result.push_back({"", URL::file(data).path() + "/Trash"});
  const std::string user = std::to_string(getuid());
  for (const std::string& mount : localMountPoints()) {
    const std::string volume = mount == "/" ? "" : mount;
    result.push_back({mount, volume + "/.Trash/" + user});
    result.push_back({mount, volume + "/.Trash-" + user});
  }
  return result;
}

std::vector<std::string> TrashFolder::watchedPaths() {
  std::vector<std::string> result;
  for (const Place& place : places()) result.push_back(place.path + "/info");
  return result;
}

std::optional<TrashFolder> TrashFolder::open(Place place) {
  Descriptor folder;
  if (place.volume.empty()) {
    folder.reset(::open(place.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  } else {
    folder.reset(::open(place.volume.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const std::string user = std::to_string(getuid());
    struct stat facts;
    if (place.path.ends_with("/.Trash/" + user)) {
      folder = folderIn(folder, ".Trash");
      if (!folder || fstat(folder.get(), &facts) != 0 || !(facts.st_mode & S_ISVTX)) return std::nullopt;
      folder = folderIn(folder, user);
    } else {
      folder = folderIn(folder, ".Trash-" + user);
    }
    if (!folder || fstat(folder.get(), &facts) != 0 || facts.st_uid != getuid()) return std::nullopt;
  }
  TrashFolder result;
  struct stat facts;
  if (!folder || fstat(folder.get(), &facts) != 0) return std::nullopt;
  result.device_ = facts.st_dev;
  result.inode_ = facts.st_ino;
  result.files_ = folderIn(folder, "files");
  result.info_ = folderIn(folder, "info");
  result.place_ = std::move(place);
  if (!result.files_) return std::nullopt;
  return result;
}

std::vector<TrashFolder> TrashFolder::all() {
  std::vector<TrashFolder> result;
  for (Place& place : places()) {
    auto folder = open(std::move(place));
    // A volume may be mounted at several places.
    const auto isSame = [&](const TrashFolder& other) {
      return folder->device_ == other.device_ && folder->inode_ == other.inode_;
    };
    if (folder && std::none_of(result.begin(), result.end(), isSame)) result.push_back(std::move(*folder));
  }
  return result;
}

std::vector<std::string> TrashFolder::namesIn(int folder) const {
  std::vector<std::string> names;
  lseek(folder, 0, SEEK_SET);
  platform::DirectoryReader().read(folder, [&](const char* name, unsigned char) {
    names.emplace_back(name);
    return true;
  });
  return names;
}

URL TrashFolder::exactly(const std::string& name) const {
  return URL::file("/proc/self/fd/" + std::to_string(files_.get()) + "/" + name);
}

std::optional<TrashEntry> TrashFolder::look(const std::string& name) const {
  struct statx own, facts;
  if (platform::factsAt(files_.get(), "", own) || platform::factsAt(files_.get(), name.c_str(), facts) ||
      platform::mountOf(own) != platform::mountOf(facts))
    return std::nullopt;
  TrashEntry entry{URL::file(place_.path + "/files/" + name), name, {}, {}, {}};
  // A rename, which is how things come here, sets the change time.
  Date came = entry.deleted = platform::dateOf(facts.stx_ctime);
  if (const auto info = readTrashInfo(info_.get(), name)) {
    came = info->written;
    entry.deleted = info->deleted.value_or(info->written);
    entry.originalPath = info->path;
    if (!info->path.empty() && !info->path.starts_with('/')) {
      const std::string top =
          place_.volume.empty() ? place_.path.substr(0, place_.path.rfind('/')) : place_.volume;
      entry.originalPath = (top == "/" ? "" : top) + "/" + info->path;
    }
    const std::string last = entry.originalPath.substr(entry.originalPath.rfind('/') + 1);
    if (!last.empty()) entry.originalName = last;
  }
  // The number of an inode is soon used again, the time of its birth is not, where there is one.
  entry.identity = platform::format("%llu %@ %@", facts.stx_ino, platform::dateOf(facts.stx_btime), came);
  entry.isFolder = S_ISDIR(facts.stx_mode);
  if (!entry.isFolder) entry.bytes = static_cast<int64_t>(facts.stx_blocks) * 512;
  return entry;
}

std::vector<TrashEntry> TrashFolder::entries() const {
  std::vector<TrashEntry> result;
  for (const std::string& name : namesIn(files_.get())) {
    auto entry = look(name);
    if (!entry) continue;
    if (entry->isFolder) entry->bytes = platform::sizeFolder(exactly(name)).bytes;
    result.push_back(std::move(*entry));
  }
  return result;
}

std::optional<TrashEntry> TrashFolder::find(const URL& url) const {
  const std::string name = url.lastPathComponent();
  if (!url.isFileURL() || name.empty() || name == "." || name == ".." || name.find('/') != name.npos ||
      name.find('\0') != name.npos || url.path() != place_.path + "/files/" + name)
    return std::nullopt;
  return look(name);
}

std::optional<Error> TrashFolder::remove(const TrashEntry& entry) const {
  const auto fail = [&](int errorNumber) {
    return Error(kTrashErrorDomain, 1,
                 platform::format(text("FAILED_ITEM"), entry.originalName, std::strerror(errorNumber)));
  };
  const std::string name = entry.url.lastPathComponent();
  const URL exact = exactly(name);
  if (const auto failure = platform::deepDelete({&exact, 1}).error) {
    const auto cause = failure->userInfo().get(platform::kFirstCauseKey).error();
    return fail(cause ? static_cast<int>(cause->code()) : EIO);
  }
  if (info_ && unlinkat(info_.get(), infoNameOf(name).c_str(), 0) != 0 && errno != ENOENT) return fail(errno);
  return std::nullopt;
}

std::vector<std::pair<std::string, Date>> TrashFolder::strayInfo() const {
  std::vector<std::pair<std::string, Date>> result;
  if (!info_) return result;
  for (std::string& name : namesIn(info_.get())) {
    if (!name.ends_with(infoNameOf(""))) continue;
    const std::string entryName = name.substr(0, name.size() - infoNameOf("").size());
    struct statx facts;
    if (platform::factsAt(files_.get(), entryName.c_str(), facts) != ENOENT) continue;
    if (const auto info = readTrashInfo(info_.get(), entryName))
      result.emplace_back(std::move(name), info->written);
  }
  return result;
}

bool TrashFolder::awaitsEntry() const {
  const auto stray = strayInfo();
  const int64_t now = Date::now().seconds;
  return std::any_of(stray.begin(), stray.end(), [now](const auto& info) {
    const int64_t written = info.second.seconds;
    return written >= now - kStrayAfterSeconds && written <= now;
  });
}

void TrashFolder::removeStrayInfo() const {
  for (const auto& [name, written] : strayInfo()) {
    if (written.seconds < Date::now().seconds - kStrayAfterSeconds) unlinkat(info_.get(), name.c_str(), 0);
  }
}

}  // namespace larkspan::trash

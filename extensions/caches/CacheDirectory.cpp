#include "extensions/caches/CacheDirectory.h"

#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/files/CacheDirTag.h"
#include "larkspan/platform/files/DeepDelete.h"
#include "larkspan/platform/files/Directory.h"
#include "larkspan/platform/files/FolderSize.h"
#include "larkspan/platform/process/UserFolders.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace larkspan::caches {

using platform::Descriptor;
using platform::Error;
using platform::URL;

namespace {

/// The path without links, or as it stands when it leads nowhere.
std::string realPath(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  std::string result = real ? real : path;
  free(real);
  return result;
}

bool holds(std::string folder, const std::string& path) {
  if (!folder.ends_with('/')) folder += '/';
  return (path + '/').starts_with(folder);
}

/// The name for which the URL is "DIRECTORY/NAME"; empty for any other.
std::string nameIn(const std::string& directory, const URL& url) {
  if (directory.empty() || !url.isFileURL()) return {};
  std::string name = url.lastPathComponent();
  if (name == "." || name == ".." || name.find('/') != name.npos || name.find('\0') != name.npos) return {};
  return url.path() == directory + '/' + name ? name : std::string();
}

}  // namespace

CacheDirectory CacheDirectory::ofUser() {
  const std::string path = platform::userCacheFolder();
  if (path.empty() || holds(realPath(path), realPath(platform::userHome()))) return CacheDirectory("");
  return CacheDirectory(URL::file(path).path());
}

Descriptor CacheDirectory::open() const {
  return Descriptor(path_.empty() ? -1
                                  : ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
}

std::vector<CacheEntry> CacheDirectory::entries(const std::function<void(const CacheEntry&)>& found) const {
  std::vector<CacheEntry> result;
  const Descriptor directory = open();
  if (!directory) return result;
  std::vector<std::string> names;
  platform::DirectoryReader().read(directory.get(), [&](const char* name, unsigned char) {
    names.emplace_back(name);
    return true;
  });
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    auto entry = look(directory.get(), name);
    if (!entry) continue;
    measure(*entry);
    if (found) found(*entry);
    result.push_back(std::move(*entry));
  }
  return result;
}

std::optional<CacheEntry> CacheDirectory::entry(const URL& url) const {
  auto entry = look(url);
  if (entry) measure(*entry);
  return entry;
}

std::optional<Error> CacheDirectory::empty(const URL& url) const {
  const auto entry = look(url);
  if (!entry) {
    return Error(kCachesErrorDomain, 1,
                 platform::format("%@ is no folder or file directly in %@", url.path(), path_));
  }
  if (entry->isFolder) {
    static const auto* const tag = new std::string(platform::kCacheDirTagName);
    return platform::emptyFolder(entry->url, {tag, entry->kind == CacheKind::tagged ? 1u : 0u}).error;
  }
  const std::string path = entry->url.path();
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return std::nullopt;
  return Error::posix(errno, path);
}

std::optional<CacheEntry> CacheDirectory::look(const URL& url) const {
  const std::string name = nameIn(path_, url);
  const Descriptor directory = open();
  if (name.empty() || !directory) return std::nullopt;
  return look(directory.get(), name);
}

std::optional<CacheEntry> CacheDirectory::look(int directory, const std::string& name) const {
  struct statx own, facts;
  if (platform::factsAt(directory, "", own) || platform::factsAt(directory, name.c_str(), facts))
    return std::nullopt;
  const bool isFolder = S_ISDIR(facts.stx_mode);
  if (platform::mountOf(facts) != platform::mountOf(own) || !(isFolder || S_ISREG(facts.stx_mode)))
    return std::nullopt;
  CacheEntry entry{name, URL::file(path_ + '/' + name), CacheKind::application, isFolder, 0};
  if (!isFolder) {
    entry.bytes = static_cast<int64_t>(facts.stx_blocks) * 512;
  } else if (name == "thumbnails") {
    entry.kind = CacheKind::thumbnails;
  } else if (platform::hasCacheDirTag(entry.url)) {
    entry.kind = CacheKind::tagged;
  }
  return entry;
}

void CacheDirectory::measure(CacheEntry& entry) {
  if (entry.isFolder) entry.bytes = platform::sizeFolder(entry.url).bytes;
}

}  // namespace larkspan::caches

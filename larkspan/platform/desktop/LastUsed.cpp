#include "larkspan/platform/desktop/LastUsed.h"

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/desktop/RecentFiles.h"
#include "larkspan/platform/process/UserFolders.h"

#include <cerrno>
#include <memory>
#include <mutex>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

namespace larkspan::platform {

namespace {

/// Stops a list that something has filled up from taking all memory.
constexpr off_t kMaximumList = 64'000'000;

/// Which state of which file was read.
struct Version {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  Date modified, changed;
  bool operator==(const Version&) const = default;
};

Version versionOf(const struct stat& facts) {
  const auto dateOf = [](const timespec& time) {
    return Date{time.tv_sec, static_cast<uint32_t>(time.tv_nsec)};
  };
  return {facts.st_dev, facts.st_ino, facts.st_size, dateOf(facts.st_mtim), dateOf(facts.st_ctim)};
}

/// The file's content; empty for what is no regular file of a bearable size.
std::string contentOf(int file, struct stat& facts) {
  if (::fstat(file, &facts) != 0 || !S_ISREG(facts.st_mode) || facts.st_size > kMaximumList) return {};
  std::string text(static_cast<std::size_t>(facts.st_size), '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t count = ::read(file, text.data() + size, text.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    size += static_cast<std::size_t>(count);
  }
  text.resize(size);
  return text;
}

/// The list as it is now; what was read last serves until the file changes.
std::shared_ptr<const RecentFiles> currentList() {
  struct Cache {
    std::mutex mutex;
    Version version;
    std::shared_ptr<const RecentFiles> files;
  };
  static auto* const cache = new Cache;
  const std::string path = userDataFolder() + "/recently-used.xbel";
  struct stat facts;
  if (::stat(path.c_str(), &facts) != 0) return nullptr;
  const std::lock_guard lock(cache->mutex);
  if (cache->files && cache->version == versionOf(facts)) return cache->files;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) return nullptr;
  cache->files = std::make_shared<RecentFiles>(contentOf(file.get(), facts));
  cache->version = versionOf(facts);
  return cache->files;
}

}  // namespace

std::optional<Date> LastUsed::lastUsedDate(const URL& folder) const {
  if (!folder.isFileURL()) return std::nullopt;
  const auto list = currentList();
  return list ? list->lastUsed(folder.path()) : std::nullopt;
}

std::atomic<LastUsed*>& LastUsed::slot() {
  static auto* installed = new std::atomic<LastUsed*>(new LastUsed);
  return *installed;
}

}  // namespace larkspan::platform

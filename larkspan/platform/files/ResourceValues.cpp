#include "larkspan/platform/files/ResourceValues.h"

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/base/Utf8.h"
#include "larkspan/platform/files/Directory.h"
#include "larkspan/platform/text/KeyFile.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

namespace larkspan::platform {

namespace {

/// What the desktop entry at the path says; nothing for what is none (freedesktop.org's desktop-entry-spec).
std::optional<KeyFile> desktopEntry(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat facts;
  // What was swapped for a device meanwhile is not read.
  if (!file || ::fstat(file.get(), &facts) != 0 || !S_ISREG(facts.st_mode)) return std::nullopt;
  KeyFileError error;
  return KeyFile::read(file.get(), error);
}

}  // namespace

std::optional<Error> FileFacts::read(const URL& url, ResourceValues& values) const {
  const std::string path = url.path();
  if (!url.isFileURL() || path.find('\0') != std::string::npos) {
    return Error::posix(EINVAL, url.absoluteString());
  }
  struct statx facts;
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME,
              &facts) != 0) {
    return Error::posix(errno, path);
  }
  const std::string name = url.lastPathComponent();
  values = {};
  values.localizedName = repairedUtf8(name);
  if (facts.stx_mask & STATX_BLOCKS) {
    values.totalAllocatedSize = static_cast<int64_t>(facts.stx_blocks * 512);
  }
  if (facts.stx_mask & STATX_BTIME) values.creationDate = dateOf(facts.stx_btime);
  if (facts.stx_mask & STATX_MTIME) values.contentModificationDate = dateOf(facts.stx_mtime);
  values.isDirectory = S_ISDIR(facts.stx_mode);
  values.isApplication = S_ISREG(facts.stx_mode) && (facts.stx_mode & 0111);
  const auto entry =
      S_ISREG(facts.stx_mode) && name.ends_with(".desktop") ? desktopEntry(path) : std::nullopt;
  if (entry) {
    constexpr std::string_view kGroup = "Desktop Entry";
    auto shown = entry->localizedString(kGroup, "Name", messagesLocale());
    if (shown && !shown->empty()) values.localizedName = std::move(*shown);
    values.isApplication |= entry->string(kGroup, "Type") == "Application";
  }
  return std::nullopt;
}

std::atomic<FileFacts*>& FileFacts::slot() {
  static auto* installed = new std::atomic<FileFacts*>(new FileFacts);
  return *installed;
}

}  // namespace larkspan::platform

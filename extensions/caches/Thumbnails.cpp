#include "extensions/caches/Thumbnails.h"

#include "larkspan/platform/files/Directory.h"

#include <algorithm>
#include <cerrno>

#include <unistd.h>

namespace larkspan::caches {

using platform::Date;
using platform::Descriptor;

namespace {

Date lastUse(const struct statx& facts) {
  return std::max(Date{facts.stx_atime.tv_sec, facts.stx_atime.tv_nsec},
                  Date{facts.stx_mtime.tv_sec, facts.stx_mtime.tv_nsec});
}

class Visit {
 public:
  Visit(Date before, bool removes) : before_(before), removes_(removes) {}

  ThumbnailSum run(const Descriptor& directory) {
    struct statx facts;
    if (directory && platform::factsAt(directory.get(), "", facts) == 0) {
      mount_ = platform::mountOf(facts);
      // thumbnails/SIZE/FILE and thumbnails/fail/PROGRAM/FILE
      visitFolder(directory.get(), "thumbnails", 3);
    }
    return sum_;
  }

 private:
  void visitFolder(int parent, const std::string& name, int levels) {
    Descriptor folder;
    if (platform::openFolderAt(parent, name.c_str(), mount_, platform::FolderOpening::automatic, folder))
      return;
    // Names first: the reader has one buffer, and removing while reading may skip entries.
    std::vector<std::string> names;
    reader_.read(folder.get(), [&](const char* entry, unsigned char) {
      names.emplace_back(entry);
      return true;
    });
    for (const std::string& entry : names) {
      if (entry.ends_with(".png")) {
        visitFile(folder.get(), entry);
      } else if (levels > 1) {
        visitFolder(folder.get(), entry, levels - 1);
      }
    }
  }

  void visitFile(int folder, const std::string& name) {
    struct statx facts;
    if (platform::factsAt(folder, name.c_str(), facts) || !S_ISREG(facts.stx_mode) ||
        lastUse(facts) >= before_)
      return;
    if (removes_ && ::unlinkat(folder, name.c_str(), 0) != 0) {
      if (errno != ENOENT && !sum_.error) sum_.error = platform::Error::posix(errno, name);
      return;
    }
    ++sum_.count;
    sum_.bytes += static_cast<int64_t>(facts.stx_blocks) * 512;
  }

  const Date before_;
  const bool removes_;
  uint64_t mount_ = 0;
  platform::DirectoryReader reader_;
  ThumbnailSum sum_;
};

}  // namespace

Date thumbnailAgeLimit() {
  Date limit = Date::now();
  limit.seconds -= kThumbnailAgeInDays * 24 * 60 * 60;
  return limit;
}

ThumbnailSum oldThumbnails(const CacheDirectory& directory, Date before) {
  return Visit(before, false).run(directory.open());
}

ThumbnailSum removeOldThumbnails(const CacheDirectory& directory, Date before) {
  return Visit(before, true).run(directory.open());
}

}  // namespace larkspan::caches

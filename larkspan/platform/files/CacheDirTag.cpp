#include "larkspan/platform/files/CacheDirTag.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace larkspan::platform {

bool hasCacheDirTag(const URL& folder) {
  if (!folder.isFileURL()) return false;
  const std::string path = folder.appending(kCacheDirTagName).path();
  const int file = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (file < 0) return false;
  struct stat facts;
  char start[kCacheDirTagSignature.size()];
  const bool isTag = ::fstat(file, &facts) == 0 && S_ISREG(facts.st_mode) &&
                     ::pread(file, start, sizeof start, 0) == static_cast<ssize_t>(sizeof start) &&
                     std::string_view(start, sizeof start) == kCacheDirTagSignature;
  ::close(file);
  return isTag;
}

}  // namespace larkspan::platform

#include "larkspan/fs/DirectorySize.h"

#include "larkspan/platform/files/FolderSize.h"

namespace larkspan {

int64_t LKSSizeDirectoryWithExcludedChildURLs(const platform::URL& folder,
                                              std::span<const platform::URL> excluded) {
  const auto result = platform::sizeFolder(folder, {excluded});
  return result.status == 0 ? result.bytes : 0;
}

}  // namespace larkspan

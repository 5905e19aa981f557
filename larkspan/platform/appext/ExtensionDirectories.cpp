#include "larkspan/platform/appext/ExtensionDirectories.h"

#include "larkspan/platform/process/UserFolders.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace larkspan::platform {

std::vector<std::string> extensionDirectories() {
  const char* const own = secure_getenv("LARKSPAN_EXTENSION_PATH");
  std::vector<std::string> all = foldersOfList(own ? own : "");
  std::ranges::move(dataFolders("/larkspan/extensions"), std::back_inserter(all));
  std::vector<std::string> folders;
  for (std::string& folder : all) {
    if (std::ranges::find(folders, folder) == folders.end()) folders.push_back(std::move(folder));
  }
  return folders;
}

}  // namespace larkspan::platform

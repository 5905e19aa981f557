#include "larkspan/platform/process/UserFolders.h"

#include "larkspan/platform/process/Identity.h"

#include <algorithm>
#include <cstdlib>

namespace larkspan::platform {
namespace {

std::string absoluteVariable(const char* name) {
  const char* value = secure_getenv(name);
  return value && *value == '/' ? value : "";
}

std::string folder(const char* variable, const char* belowHome) {
  std::string path = absoluteVariable(variable);
  if (!path.empty()) return path;
  path = userHome();
  return path.empty() ? path : path + belowHome;
}

}  // namespace

std::string userHome() {
  std::string home = absoluteVariable("HOME");
  return home.empty() ? Identity::current().homeFolder : home;
}

std::string userDataFolder() { return folder("XDG_DATA_HOME", "/.local/share"); }

std::string userCacheFolder() { return folder("XDG_CACHE_HOME", "/.cache"); }

std::vector<std::string> foldersOfList(std::string_view list) {
  std::vector<std::string> folders;
  while (!list.empty()) {
    std::string_view entry = list.substr(0, list.find(':'));
    list.remove_prefix(std::min(entry.size() + 1, list.size()));
    if (!entry.starts_with('/')) continue;
    while (entry.size() > 1 && entry.ends_with('/')) entry.remove_suffix(1);
    folders.emplace_back(entry);
  }
  return folders;
}

std::vector<std::string> dataFolders(std::string_view below) {
  const char* const variable = secure_getenv("XDG_DATA_DIRS");
  std::vector<std::string> folders =
      foldersOfList(variable && *variable ? variable : "/usr/local/share:/usr/share");
  if (std::string own = userDataFolder(); !own.empty()) folders.insert(folders.begin(), std::move(own));
  for (std::string& folder : folders) {
    while (folder.ends_with('/')) folder.pop_back();
    folder += below;
  }
  return folders;
}

}  // namespace larkspan::platform

#include "larkspan/platform/appext/ExtensionDirectories.h"

#include "larkspan/platform/process/UserFolders.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace larkspan::platform {
namespace {

constexpr std::string_view kBelowData = "/larkspan/extensions";

std::string environment(const char* name, const char* byDefault) {
  const char* value = secure_getenv(name);
  return value && *value ? value : byDefault;
}

void append(std::vector<std::string>& folders, std::string_view base, std::string_view below) {
  if (!base.starts_with('/')) return;
  while (base.ends_with('/')) base.remove_suffix(1);
  std::string folder = std::string(base).append(below);
  if (folder.empty()) folder.push_back('/');
  if (std::find(folders.begin(), folders.end(), folder) == folders.end())
    folders.push_back(std::move(folder));
}

void appendList(std::vector<std::string>& folders, std::string_view list, std::string_view below) {
  for (std::size_t start = 0; start < list.size();) {
    const std::size_t end = std::min(list.find(':', start), list.size());
    append(folders, list.substr(start, end - start), below);
    start = end + 1;
  }
}

}  // namespace

std::vector<std::string> extensionDirectories() {
  std::vector<std::string> folders;
  appendList(folders, environment("LARKSPAN_EXTENSION_PATH", ""), {});
  append(folders, userDataFolder(), kBelowData);
  appendList(folders, environment("XDG_DATA_DIRS", "/usr/local/share:/usr/share"), kBelowData);
  return folders;
}

}  // namespace larkspan::platform

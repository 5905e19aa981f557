#include "larkspan/platform/process/UserFolders.h"

#include "larkspan/platform/process/Identity.h"

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

}  // namespace larkspan::platform

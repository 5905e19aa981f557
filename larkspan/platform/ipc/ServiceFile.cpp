#include "larkspan/platform/ipc/ServiceFile.h"

#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/platform/process/ExecLine.h"
#include "larkspan/platform/process/TrustedFile.h"
#include "larkspan/platform/process/UserFolders.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include <unistd.h>

namespace larkspan::platform {

namespace {

constexpr std::string_view kGroup = "Service";

/// What is wrong with the file stands in place of the program.
std::variant<std::vector<std::string>, std::string> readProgram(const std::string& path,
                                                                const std::string& name) {
  const auto read = readTrustedKeyFile(path);
  if (const auto* shortage = std::get_if<Shortage>(&read))
    return std::string(std::strerror(shortage->errorNumber));
  if (const auto* reason = std::get_if<std::string>(&read)) return *reason;
  const auto& keys = std::get<KeyFile>(read);
  if (!keys.hasGroup(kGroup)) return "no group [Service]";
  if (keys.string(kGroup, "Identifier") != name) return "Identifier is not the file's name";
  if (const auto hidden = keys.string(kGroup, "Hidden"); hidden && hidden != "false")
    return hidden == "true" ? "is switched off" : "Hidden is neither true nor false";
  const auto exec = keys.string(kGroup, "Exec");
  return exec ? parseExecLine(*exec, folderOf(path)) : "no Exec";
}

}  // namespace

std::variant<std::vector<std::string>, Error> serviceProgram(const std::string& name) {
  std::string reasons;
  for (const std::string& folder : dataFolders("/larkspan/services")) {
    const std::string path = folder + '/' + name + ".service";
    if (::access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR)) continue;
    auto program = readProgram(path, name);
    const auto* reason = std::get_if<std::string>(&program);
    if (!reason) return std::get<std::vector<std::string>>(std::move(program));
    reasons += "; " + path + ": " + *reason;
    if (*reason == "is switched off") break;
  }
  return transportError(TransportErrorCode::launchFailed,
                        name + " is not running, and there is no service file to start it" + reasons);
}

}  // namespace larkspan::platform

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

struct Refusal {
  std::string reason;
  bool isFinal = false;  // No later folder is asked.
};

std::variant<std::vector<std::string>, Refusal> readProgram(const std::string& path,
                                                            const std::string& name) {
  const auto read = readTrustedKeyFile(path);
  if (const auto* shortage = std::get_if<Shortage>(&read))
    return Refusal{std::strerror(shortage->errorNumber), true};
  if (const auto* reason = std::get_if<std::string>(&read)) return Refusal{*reason};
  const auto& keys = std::get<KeyFile>(read);
  if (!keys.hasGroup(kGroup)) return Refusal{"no group [Service]"};
  const auto identifier = keys.string(kGroup, "Identifier");
  if (identifier && identifier != name) return Refusal{"Identifier is not the file's name"};
  if (const auto hidden = keys.string(kGroup, "Hidden"); hidden && hidden != "false")
    return hidden == "true" ? Refusal{"is switched off", true} : Refusal{"Hidden is neither true nor false"};
  const auto exec = keys.string(kGroup, "Exec");
  if (!identifier || !exec) return Refusal{identifier ? "no Exec" : "no Identifier"};
  auto program = parseExecLine(*exec, folderOf(path));
  if (auto* reason = std::get_if<std::string>(&program)) return Refusal{std::move(*reason)};
  return std::get<std::vector<std::string>>(std::move(program));
}

}  // namespace

std::variant<std::vector<std::string>, Error> serviceProgram(const std::string& name) {
  std::string reasons;
  for (const std::string& folder : dataFolders("/larkspan/services")) {
    const std::string path = folder + '/' + name + ".service";
    if (::access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR)) continue;
    auto program = readProgram(path, name);
    const auto* refusal = std::get_if<Refusal>(&program);
    if (!refusal) return std::get<std::vector<std::string>>(std::move(program));
    reasons += "; " + path + ": " + refusal->reason;
    if (refusal->isFinal) break;
  }
  return transportError(TransportErrorCode::launchFailed,
                        name + " is not running, and there is no service file to start it" + reasons);
}

}  // namespace larkspan::platform

#include "larkspan/platform/ipc/ServiceFile.h"

#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/platform/process/TrustedFile.h"
#include "larkspan/platform/process/UserFolders.h"

#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace larkspan::platform {

namespace {

struct Refusal {
  std::string reason;
  bool isFinal = false;  // No later folder is asked.
};

std::variant<std::vector<std::string>, Refusal> readProgram(const std::string& path) {
  auto read = readProgramFile(path, "Service");
  if (const auto* shortage = std::get_if<Shortage>(&read))
    return Refusal{std::strerror(shortage->errorNumber), true};
  if (auto* reason = std::get_if<std::string>(&read)) return Refusal{std::move(*reason)};
  auto& file = std::get<ProgramFile>(read);
  if (file.hidden) return Refusal{"is switched off", true};
  return std::move(file.exec);
}

}  // namespace

std::variant<std::vector<std::string>, Error> serviceProgram(const std::string& name) {
  std::string reasons;
  for (const std::string& folder : dataFolders("/larkspan/services")) {
    const std::string path = folder + '/' + name + ".service";
    if (::access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR)) continue;
    auto program = readProgram(path);
    const auto* refusal = std::get_if<Refusal>(&program);
    if (!refusal) return std::get<std::vector<std::string>>(std::move(program));
    reasons += "; " + path + ": " + refusal->reason;
    if (refusal->isFinal) break;
  }
  return transportError(TransportErrorCode::launchFailed,
                        name + " is not running, and there is no service file to start it" + reasons);
}

}  // namespace larkspan::platform

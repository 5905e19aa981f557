#include "larkspan/platform/ipc/ServiceFile.h"

#include "larkspan/platform/ipc/TransportError.h"
#include "larkspan/platform/process/TrustedFile.h"
#include "larkspan/platform/process/UserFolders.h"

#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace larkspan::platform {

std::variant<std::vector<std::string>, Error> serviceProgram(const std::string& name) {
  std::string reasons;
  for (const std::string& folder : dataFolders("/larkspan/services")) {
    const std::string path = folder + '/' + name + ".service";
    if (::access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR)) continue;
    auto read = readProgramFile(path, "Service");
    if (const auto* shortage = std::get_if<Shortage>(&read)) {
      return transportError(TransportErrorCode::launchFailed, name + " cannot be started: " + path + ": " +
                                                                  std::strerror(shortage->errorNumber));
    }
    auto* file = std::get_if<ProgramFile>(&read);
    if (file && !file->hidden) return std::move(file->exec);
    reasons += "; " + path + ": " + (file ? "is switched off" : std::get<std::string>(read));
    if (file) break;
  }
  return transportError(TransportErrorCode::launchFailed,
                        name + " is not running, and there is no service file to start it" + reasons);
}

}  // namespace larkspan::platform

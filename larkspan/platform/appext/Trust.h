#pragma once

#include <optional>
#include <string>

#include <sys/stat.h>

namespace larkspan::platform {

/// Why a file or folder may not decide which programs this process starts; nothing when it may. It must
/// belong to root or the effective user, and nobody else may be able to write it: not everybody, sticky or
/// not, and no group but root's and the effective one (systems with a group for each user have files that are
/// writable by it).
/// Thread: any.
std::optional<std::string> reasonForDistrust(const struct stat& status);

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/text/KeyFile.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include <sys/stat.h>

// Files that decide which programs this process starts. Any thread.

namespace larkspan::platform {

/// Why a file or folder may not decide which programs this process starts; nothing when it may. It must
/// belong to root or the effective user, and nobody else may be able to write it: not everybody, sticky or
/// not, and no group but root's and the effective one (systems with a group for each user have files that are
/// writable by it).
std::optional<std::string> reasonForDistrust(const struct stat& status);

/// What this process or the machine is short of: another try may go well.
struct Shortage {
  int errorNumber;
};

/// Whether an errno speaks of a `Shortage` and not of the file.
bool isShortage(int errorNumber);

/// The key file at `path`, the reason in English why it is not to be used, or the shortage that keeps it from being
/// read just now. Links are followed; the file that they lead to must be regular. It and the folder of `path` must be
/// trustworthy.
std::variant<KeyFile, std::string, Shortage> readTrustedKeyFile(const std::string& path);

/// The folder of a path, "." where it has none.
std::string folderOf(const std::string& path);

/// Bytes of the longest name of an extension or service.
inline constexpr std::size_t kMaxIdentifier = 128;
/// Whether that may be one: ASCII letters, digits, '.', '-' and '_', of which the first is a letter or digit.
bool isIdentifier(std::string_view text);

}  // namespace larkspan::platform

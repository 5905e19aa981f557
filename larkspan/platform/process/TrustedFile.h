#pragma once

#include "larkspan/platform/text/KeyFile.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

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

/// A key file that names a program.
struct ProgramFile {
  KeyFile keys;
  /// `Hidden`: switched off, and `Identifier` and `Exec` need not be there.
  bool hidden = false;
  /// `Exec`, taken apart (see ExecLine.h), unless it is hidden.
  std::vector<std::string> exec;
};

/// The file at `path`, the reason in English why it is not to be used, or the shortage that keeps it from being read just
/// now. The keys stand in `group`, and `Identifier` is the file's name without what follows its last dot. Links are
/// followed; the file that they lead to must be regular. It and the folder of `path` must be trustworthy.
std::variant<ProgramFile, std::string, Shortage> readProgramFile(const std::string& path,
                                                                 std::string_view group);

/// Bytes of the longest name of an extension or service.
inline constexpr std::size_t kMaxIdentifier = 128;
/// Whether that may be one: ASCII letters, digits, '.', '-' and '_', of which the first is a letter or digit.
bool isIdentifier(std::string_view text);

}  // namespace larkspan::platform

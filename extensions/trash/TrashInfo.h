#pragma once

#include "larkspan/platform/base/Date.h"

#include <optional>
#include <string>
#include <string_view>

namespace larkspan::trash {

/// What an info file says about the entry of the same name (freedesktop.org's trash-spec, version 1.0).
struct TrashInfo {
  /// Where the entry was, any bytes: absolute, or from the top folder of its volume on, in the user's own
  /// trash from $XDG_DATA_HOME on. Empty when there is none that makes sense.
  std::string path;
  /// When it was deleted; the file has it in local time.
  std::optional<platform::Date> deleted;
  /// When the info file was written.
  platform::Date written;
};

/// The info file of the entry; nothing when there is no regular file of that name, whatever it says.
std::optional<TrashInfo> readTrashInfo(int infoFolder, const std::string& entryName);

/// "NAME.trashinfo"
std::string infoNameOf(std::string_view entryName);

}  // namespace larkspan::trash

#pragma once

#include "larkspan/platform/base/Error.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace larkspan::platform {

/// Domain of the errors of archives and frames; the code is an `ArchiveErrorCode`.
inline constexpr std::string_view kArchiveErrorDomain = "Archive";

/// Why an archive or a frame was refused, or could not be made.
enum class ArchiveErrorCode : int64_t {
  truncated = 1,    ///< The bytes end inside an item.
  tooLarge,         ///< More than `limits::kMaximumFrame` bytes.
  tooDeep,          ///< More than `limits::kMaximumDepth` containers and tags inside each other.
  tooManyElements,  ///< More than `limits::kMaximumElements` items.
  invalidUtf8,      ///< A text string that is not UTF-8.
  duplicateKey,     ///< A map that holds a key twice.
  malformed,        ///< Anything else that breaks the format.
  forbiddenClass,   ///< A value of a class that the receiver did not ask for.
  notArchivable,    ///< Making an archive: an object that has no archived form.
};

/// "FAULT (byte OFFSET)".
Error archiveError(ArchiveErrorCode code, std::string_view fault, std::size_t offset);
/// The same where no byte can be named.
Error archiveError(ArchiveErrorCode code, std::string_view fault);

}  // namespace larkspan::platform

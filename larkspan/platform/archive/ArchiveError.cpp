#include "larkspan/platform/archive/ArchiveError.h"

#include <string>

namespace larkspan::platform {

Error archiveError(ArchiveErrorCode code, std::string_view fault, std::size_t offset) {
  return archiveError(code, std::string(fault) + " (byte " + std::to_string(offset) + ")");
}

Error archiveError(ArchiveErrorCode code, std::string_view fault) {
  return Error(kArchiveErrorDomain, static_cast<int64_t>(code), fault);
}

}  // namespace larkspan::platform

#include "larkspan/platform/appext/Trust.h"

#include "larkspan/platform/process/Identity.h"

#include <unistd.h>

namespace larkspan::platform {

std::optional<std::string> reasonForDistrust(const struct stat& status) {
  if (status.st_uid != 0 && status.st_uid != Identity::current().effectiveUser) {
    return "belongs to user " + std::to_string(status.st_uid) + ", neither root nor the current user";
  }
  if (status.st_mode & S_IWOTH) return "writable by everybody";
  if ((status.st_mode & S_IWGRP) && status.st_gid != 0 && status.st_gid != getegid()) {
    return "writable by group " + std::to_string(status.st_gid);
  }
  return std::nullopt;
}

}  // namespace larkspan::platform

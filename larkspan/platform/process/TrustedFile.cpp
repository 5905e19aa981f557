#include "larkspan/platform/process/TrustedFile.h"

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/process/ExecLine.h"
#include "larkspan/platform/process/Identity.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
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

bool isShortage(int errorNumber) {
  return errorNumber == EMFILE || errorNumber == ENFILE || errorNumber == ENOMEM;
}

static std::variant<KeyFile, std::string, Shortage> readKeys(const std::string& folder,
                                                             const std::string& fileName) {
  // Relative to the folder that was checked, even if another takes its place meanwhile. A pipe does not hold
  // us up.
  struct stat status;
  const Descriptor parent(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent || fstat(parent.get(), &status) != 0) {
    if (isShortage(errno)) return Shortage{errno};
    return std::string("its folder: ") + std::strerror(errno);
  }
  if (const auto reason = reasonForDistrust(status)) return "its folder: " + *reason;
  const Descriptor file(openat(parent.get(), fileName.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file || fstat(file.get(), &status) != 0) {
    if (isShortage(errno)) return Shortage{errno};
    return std::string(std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) return "not a regular file";
  if (const auto reason = reasonForDistrust(status)) return *reason;

  KeyFileError error;
  auto keys = KeyFile::read(file.get(), error);
  if (keys) return std::move(*keys);
  return error.line ? "line " + std::to_string(error.line) + ": " + error.reason : error.reason;
}

std::variant<ProgramFile, std::string, Shortage> readProgramFile(const std::string& path,
                                                                 std::string_view group) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == path.npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const std::string fileName = path.substr(slash + 1);
  auto read = readKeys(folder, fileName);
  if (const auto* shortage = std::get_if<Shortage>(&read)) return *shortage;
  if (auto* reason = std::get_if<std::string>(&read)) return std::move(*reason);

  ProgramFile file{std::get<KeyFile>(std::move(read)), false, {}};
  if (!file.keys.hasGroup(group)) return "no group [" + std::string(group) + "]";
  const auto identifier = file.keys.string(group, "Identifier");
  if (identifier && identifier != fileName.substr(0, fileName.rfind('.')))
    return "Identifier is not the file's name";
  const auto hidden = file.keys.boolean(group, "Hidden");
  if (!hidden && file.keys.string(group, "Hidden")) return "Hidden is neither true nor false";
  file.hidden = hidden.value_or(false);
  if (file.hidden) return file;

  const std::string exec = file.keys.string(group, "Exec").value_or("");
  if (!identifier || exec.empty()) return identifier ? "no Exec" : "no Identifier";
  auto arguments = parseExecLine(exec, folder);
  if (auto* reason = std::get_if<std::string>(&arguments)) return std::move(*reason);
  file.exec = std::get<std::vector<std::string>>(std::move(arguments));
  return file;
}

bool isIdentifier(std::string_view text) {
  const auto isAlphanumeric = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
  };
  return !text.empty() && text.size() <= kMaxIdentifier && isAlphanumeric(text.front()) &&
         std::all_of(text.begin(), text.end(),
                     [&](char c) { return isAlphanumeric(c) || c == '.' || c == '-' || c == '_'; });
}

}  // namespace larkspan::platform

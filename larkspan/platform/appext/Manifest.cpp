#include "larkspan/platform/appext/Manifest.h"

#include "larkspan/platform/appext/ExecLine.h"
#include "larkspan/platform/appext/Trust.h"
#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/text/KeyFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>

namespace larkspan::platform {
namespace {

constexpr std::string_view kGroup = "Extension";
constexpr std::string_view kSuffix = ".extension";

bool isIdentifier(std::string_view text) {
  const auto isAlphanumeric = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
  };
  return !text.empty() && text.size() <= Manifest::kMaxIdentifier && isAlphanumeric(text.front()) &&
         std::all_of(text.begin(), text.end(),
                     [&](char c) { return isAlphanumeric(c) || c == '.' || c == '-' || c == '_'; });
}

bool hasControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

}  // namespace

bool isShortage(int errorNumber) {
  return errorNumber == EMFILE || errorNumber == ENFILE || errorNumber == ENOMEM;
}

std::variant<Manifest, std::string, Shortage> readManifest(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == path.npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const std::string fileName = path.substr(slash + 1);
  if (!fileName.ends_with(kSuffix)) return "the file name does not end in .extension";

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
  const auto keys = KeyFile::read(file.get(), error);
  if (!keys) return error.line ? "line " + std::to_string(error.line) + ": " + error.reason : error.reason;
  if (!keys->hasGroup(kGroup)) return "no group [Extension]";
  const auto text = [&](std::string_view key) { return keys->string(kGroup, key).value_or(""); };

  Manifest manifest;
  manifest.path = path;
  manifest.identifier = fileName.substr(0, fileName.size() - kSuffix.size());
  if (!isIdentifier(manifest.identifier)) return "the file name is no identifier";
  const auto hidden = keys->boolean(kGroup, "Hidden");
  if (!hidden && keys->string(kGroup, "Hidden")) return "Hidden is neither true nor false";
  manifest.hidden = hidden.value_or(false);

  const auto identifier = keys->string(kGroup, "Identifier");
  if (identifier && identifier != manifest.identifier) return "Identifier is not the file's name";
  manifest.extensionPoint = text("ExtensionPoint");
  manifest.name = keys->localizedString(kGroup, "Name", messagesLocale()).value_or("");
  manifest.icon = text("Icon");
  if (manifest.name.empty()) manifest.name = text("Name");
  const std::string exec = text("Exec");
  if (hasControl(manifest.name) || hasControl(manifest.icon) || hasControl(exec)) {
    return "a control character in Name, Icon or Exec";
  }
  if (manifest.hidden) return manifest;

  for (const std::string_view key : {"Identifier", "ExtensionPoint", "Name", "Exec"}) {
    if (text(key).empty()) return "no " + std::string(key);
  }
  if (!isIdentifier(manifest.extensionPoint)) return "ExtensionPoint is no identifier";
  auto arguments = parseExecLine(exec, folder);
  if (auto* reason = std::get_if<std::string>(&arguments)) return std::move(*reason);
  manifest.exec = std::move(std::get<std::vector<std::string>>(arguments));
  return manifest;
}

}  // namespace larkspan::platform

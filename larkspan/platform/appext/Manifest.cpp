#include "larkspan/platform/appext/Manifest.h"

#include "larkspan/platform/process/ExecLine.h"
#include "larkspan/platform/process/TrustedFile.h"
#include "larkspan/platform/text/KeyFile.h"

#include <algorithm>
#include <string_view>

namespace larkspan::platform {
namespace {

constexpr std::string_view kGroup = "Extension";
constexpr std::string_view kSuffix = ".extension";

bool hasControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

}  // namespace

std::variant<Manifest, std::string, Shortage> readManifest(const std::string& path) {
  const std::string fileName = path.substr(path.rfind('/') + 1);
  if (!fileName.ends_with(kSuffix)) return "the file name does not end in .extension";

  const auto read = readTrustedKeyFile(path);
  if (const auto* shortage = std::get_if<Shortage>(&read)) return *shortage;
  if (const auto* reason = std::get_if<std::string>(&read)) return *reason;
  const KeyFile* const keys = &std::get<KeyFile>(read);
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
  auto arguments = parseExecLine(exec, folderOf(path));
  if (auto* reason = std::get_if<std::string>(&arguments)) return std::move(*reason);
  manifest.exec = std::move(std::get<std::vector<std::string>>(arguments));
  return manifest;
}

}  // namespace larkspan::platform

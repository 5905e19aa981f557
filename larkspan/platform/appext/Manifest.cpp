#include "larkspan/platform/appext/Manifest.h"

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

  auto read = readProgramFile(path, kGroup);
  if (const auto* shortage = std::get_if<Shortage>(&read)) return *shortage;
  if (auto* reason = std::get_if<std::string>(&read)) return std::move(*reason);
  auto& [keys, hidden, exec] = std::get<ProgramFile>(read);
  const auto text = [&keys = keys](std::string_view key) { return keys.string(kGroup, key).value_or(""); };

  Manifest manifest;
  manifest.path = path;
  manifest.identifier = fileName.substr(0, fileName.size() - kSuffix.size());
  if (!isIdentifier(manifest.identifier)) return "the file name is no identifier";
  manifest.hidden = hidden;
  manifest.exec = std::move(exec);
  manifest.extensionPoint = text("ExtensionPoint");
  manifest.name = keys.localizedString(kGroup, "Name", messagesLocale()).value_or("");
  manifest.icon = text("Icon");
  if (manifest.name.empty()) manifest.name = text("Name");
  if (hasControl(manifest.name) || hasControl(manifest.icon)) return "a control character in Name or Icon";
  if (manifest.hidden) return manifest;

  for (const std::string_view key : {"ExtensionPoint", "Name"}) {
    if (text(key).empty()) return "no " + std::string(key);
  }
  if (!isIdentifier(manifest.extensionPoint)) return "ExtensionPoint is no identifier";
  return manifest;
}

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/process/TrustedFile.h"

#include <string>
#include <variant>
#include <vector>

namespace larkspan::platform {

/// What an extension says about itself: a key file (text/KeyFile.h) `IDENTIFIER.extension` with the group
/// "Extension".
/// Owner:  the caller; a value.
/// Limits: identifier and extension point have at most `kMaxIdentifier` bytes; otherwise those of a key file.
struct Manifest {
  std::string path;            ///< Where it was read.
  std::string identifier;      ///< `Identifier`; the file name without ".extension".
  std::string extensionPoint;  ///< `ExtensionPoint`
  std::string name;            ///< `Name`, in the locale of messages.
  /// `Exec`, taken apart. A program without a slash is to be looked up in PATH, any other stands here with
  /// its folder.
  std::vector<std::string> exec;
  std::string icon;  ///< `Icon`; may be empty.
  /// `Hidden`: switched off. Extension point, name and exec may then be empty.
  bool hidden = false;

  /// The bundle is the manifest: two are the same extension when their path is.
  friend bool operator==(const Manifest& a, const Manifest& b) { return a.path == b.path; }
};

/// The manifest at `path`, the reason in English why it is not one, or the shortage that keeps it from being
/// read just now (see `readProgramFile`). `Identifier`, `ExtensionPoint`, `Name` and `Exec` must be
/// there unless `Hidden` is true; whether the program exists is for the launch to find out. `Identifier` and
/// `ExtensionPoint` are made of ASCII letters, digits, '.', '-' and '_' and start with a letter or digit.
/// Thread: any; reads files.
std::variant<Manifest, std::string, Shortage> readManifest(const std::string& path);

}  // namespace larkspan::platform

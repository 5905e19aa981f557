#pragma once

#include "larkspan/platform/appext/Manifest.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include <sys/stat.h>

namespace larkspan::platform {

/// The manifests of one folder, kept up to date by looking again. An unchanged file is not read again, and
/// what is wrong with a file or with the folder is logged once until it changes.
/// Owner:  the caller.
/// Thread: one at a time.
class ManifestFolder {
 public:
  explicit ManifestFolder(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  /// Reads what is new or changed. `onLink` gets the path of each manifest that is a symbolic link, before it
  /// is read. 0, or an errno where the folder or a file cannot be read just now (no descriptors, no memory,
  /// a disk error): what was known stays, and it is worth trying again.
  int look(const std::function<void(const std::string& path)>& onLink);
  /// Calls `take` with each sound manifest, in no order.
  void forEach(const std::function<void(const Manifest&)>& take) const;

 private:
  /// What tells whether a file is the one that was read.
  struct Version {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t modified = 0, changed = 0;  ///< Nanoseconds since 1970.
    friend bool operator==(const Version&, const Version&) = default;
  };
  struct File {
    Version version;
    bool isSettled = false;            ///< A later change is sure to show in the version.
    std::optional<Manifest> manifest;  ///< None where `refusal` says why.
    std::string refusal;
    unsigned seen = 0;
  };

  static Version versionOf(const struct stat& status);
  void refuse(std::string reason);
  int update(int folder, const std::string& name);

  std::string path_;
  std::string refusal_;
  unsigned round_ = 0;
  std::unordered_map<std::string, File> files_;
};

}  // namespace larkspan::platform

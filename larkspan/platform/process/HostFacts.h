#pragma once

#include <optional>
#include <string>

namespace larkspan::platform {

/// What this machine is. Values that cannot be read are absent.
struct HostFacts {
  /// Processors configured, whether or not they are in use; at least 1.
  int processorCount = 1;
  /// The system is a build before its release: RELEASE_TYPE "development" or "experiment" of os-release(5).
  bool isInternalInstall = false;
  /// VERSION_ID of os-release(5); rolling systems have none.
  std::optional<std::string> productVersion;
  /// The firmware's product name (/sys/class/dmi/id), or the device tree's model.
  std::optional<std::string> productType;

  /// Read once, on first use, and kept.
  /// Thread: any.
  static HostFacts current();
};

/// Replaces `HostFacts::current()` for as long as it lives; afterwards it is what it was. For tests.
class ScopedHostFacts {
 public:
  explicit ScopedHostFacts(HostFacts facts);
  ~ScopedHostFacts();
  ScopedHostFacts(const ScopedHostFacts&) = delete;
  ScopedHostFacts& operator=(const ScopedHostFacts&) = delete;

 private:
  std::optional<HostFacts> previous_;
};

/// The value of one variable of an os-release(5) file: shell quoting undone, nothing when it is not set.
std::optional<std::string> osReleaseValue(const std::string& content, const std::string& variable);

}  // namespace larkspan::platform

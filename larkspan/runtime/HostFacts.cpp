#include "larkspan/runtime/HostFacts.h"

#include "larkspan/platform/base/Value.h"
#include "larkspan/platform/process/HostFacts.h"

namespace larkspan {

bool LKSStorageIsInternalInstall() { return platform::HostFacts::current().isInternalInstall; }
std::optional<std::string> LKSStorageProductVersion() {
  return platform::HostFacts::current().productVersion;
}
std::optional<std::string> LKSStorageProductType() { return platform::HostFacts::current().productType; }

bool LKSStorageIsUserVolumeMountPath(std::string_view path) {
  return path.starts_with("/System/Volumes/Data");
}

platform::Dictionary LKSConvertNSErrorToDictionary(const platform::Error& error) {
  platform::Dictionary texts;
  const auto set = [&](platform::Key key, const std::optional<std::string>& text) {
    if (text) texts.set(key, *text);
  };
  set(platform::kLocalizedDescriptionKey, error.localizedDescription());
  set(platform::kLocalizedFailureReasonKey, error.localizedFailureReason());
  set(platform::kLocalizedRecoverySuggestionKey, error.localizedRecoverySuggestion());
  set(platform::kHelpAnchorKey, error.helpAnchor());
  return texts;
}

}  // namespace larkspan

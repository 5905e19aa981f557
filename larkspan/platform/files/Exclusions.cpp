#include "larkspan/platform/files/Exclusions.h"

namespace larkspan::platform {

Exclusions::Exclusions(std::string_view folderPath, std::span<const URL> excluded) {
  std::string prefix(folderPath);
  if (!prefix.ends_with('/')) prefix += '/';
  for (const URL& url : excluded) {
    const std::string path = url.path();
    if (!path.starts_with(prefix) || path.size() == prefix.size() || URL::file(path) != url) continue;
    std::string_view rest = std::string_view(path).substr(prefix.size());
    Place place = 1;
    while (!rest.empty()) {
      const std::string_view name = rest.substr(0, rest.find('/'));
      rest.remove_prefix(name.size() == rest.size() ? name.size() : name.size() + 1);
      const auto next = static_cast<Place>(places_.size());
      const auto [found, isNew] = places_[place].children.try_emplace(std::string(name), next);
      place = found->second;
      if (isNew) places_.emplace_back();
    }
    places_[place].excluded = true;
  }
}

Exclusions::Place Exclusions::at(Place folder, std::string_view name) const {
  if (folder == kNowhere) return kNowhere;
  const auto& children = places_[folder].children;
  const auto found = children.find(name);
  return found == children.end() ? kNowhere : found->second;
}

}  // namespace larkspan::platform

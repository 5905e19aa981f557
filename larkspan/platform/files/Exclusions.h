#pragma once

#include "larkspan/platform/base/URL.h"

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace larkspan::platform {

/// A collection of URLs to leave out of one folder's walk, arranged so that only folders with an excluded
/// entry somewhere beneath them cost a look-up. An entry is excluded when its URL equals a member in
/// spelling; its URL is the file URL of the folder's path, "/" and the names down to it, without a trailing
/// slash. A member that no entry's URL can equal is dropped.
/// Thread: any, immutable.
class Exclusions {
 public:
  /// A place in the tree: `kNowhere` where nothing is excluded beneath.
  using Place = uint32_t;
  static constexpr Place kNowhere = 0;

  Exclusions(std::string_view folderPath, std::span<const URL> excluded);

  /// The place of the folder itself.
  Place root() const { return places_.size() > 2 ? 1 : kNowhere; }
  /// The place of the entry `name` of a folder's place.
  Place at(Place folder, std::string_view name) const;
  bool isExcluded(Place place) const { return places_[place].excluded; }

 private:
  struct Node {
    std::map<std::string, Place, std::less<>> children;
    bool excluded = false;
  };
  // One flat list, so that a deep tree is not torn down by recursion. The first two: nowhere, the folder.
  std::vector<Node> places_{2};
};

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/dispatch/IoSource.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

namespace larkspan::platform {

/// Tells that something may have changed at any of a set of paths, whether they exist or not (inotify(7)).
/// Every component of a path is watched for being moved or removed, each symbolic link on the way itself and
/// what it leads to; where a component is missing, the folder that it would stand in is watched for it. What
/// changed is not said: the caller looks at everything again, so that a lost event costs nothing. Use:
/// `begin()`, add each path and read what is there afterwards, `finish()`; after each change again.
/// Owner:   the caller.
/// Thread:  one at a time; the handler runs on the input/output thread and must not block.
/// Failure: `finish()` gives the errno of what could not be watched for want of memory or for a limit. Paths
///          that may not be read are not watched; `isBlind()` says so.
class PathWatch {
 public:
  /// `onChange` is called once for each `finish()`, as soon as something changed since its `begin()`.
  explicit PathWatch(std::function<void()> onChange);
  ~PathWatch();
  PathWatch(const PathWatch&) = delete;
  PathWatch& operator=(const PathWatch&) = delete;

  void begin();
  /// An absolute path: a folder with what stands in it, or a file.
  void addContent(const std::string& path);
  /// An absolute path, for what stands at it and not for what that holds. Another thing in the folder that it
  /// stands in may count as a change.
  void addPlace(const std::string& path);
  /// Watches no more what was not added since `begin()`. 0 or an errno.
  int finish();
  /// Whether a component could not be watched, as this process may not read it; only a look tells what became
  /// of it.
  bool isBlind() const { return isBlind_; }

 private:
  bool watch(const std::string& path, uint32_t events);
  void addComponents(const std::string& path, uint32_t ofFolder, uint32_t ofEnd);

  const std::function<void()> onChange_;
  Descriptor inotify_;
  std::shared_ptr<IoSource> source_;
  std::set<int> watched_, added_;
  int failure_ = 0;
  bool isBlind_ = false;
};

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/appext/Manifest.h"
#include "larkspan/platform/base/Error.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace larkspan::platform {

/// Finds the installed extensions of one extension point and keeps finding them. For each file name the first
/// folder of `extensionDirectories()` that has a sound manifest wins, whatever its extension point; one that
/// is hidden hides those after it, one that is refused does not. A refused manifest or folder costs one line
/// in the system log (subsystem "corvane.storage", category "extensions") until it changes.
/// Owner:   the caller; dropping it ends the matching.
/// Thread:  any; the completion runs on a serial queue of the matcher's own.
/// Failure: where the kernel cannot watch (a limit of inotify(7)) or a folder cannot be read just now, the
///          completion gets the set as far as it is known, then the error, once; from then on the folders are
///          looked at each second until all is well again.
/// Limits:  a change is noticed within a second, many at once together. Not noticed are a file system mounted
///          over a folder, a change made through a second hard link or on another machine, and what happens
///          beneath a folder that may not be read.
class ExtensionMatcher {
 public:
  /// Gets the complete set, sorted by identifier: once at first, be it empty, and whenever it has changed; or
  /// an error.
  using Completion = std::function<void(const std::optional<std::vector<Manifest>>& extensions,
                                        const std::optional<Error>& error)>;

  /// Begins matching; the environment is read now and not again.
  ExtensionMatcher(std::string extensionPoint, Completion completion);
  ~ExtensionMatcher();
  ExtensionMatcher(const ExtensionMatcher&) = delete;
  ExtensionMatcher& operator=(const ExtensionMatcher&) = delete;

  /// Nothing is delivered any more once this has returned: it waits for a delivery that is under way, so the
  /// caller must not hold a lock that the completion takes. Called from the completion itself it returns at
  /// once, and this delivery is the last. Drops the completion. Idempotent.
  void end();

 private:
  class Matching;
  const std::shared_ptr<Matching> matching_;
};

}  // namespace larkspan::platform

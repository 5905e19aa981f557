#pragma once

#include "larkspan/platform/base/Date.h"
#include "larkspan/platform/base/URL.h"

#include <atomic>
#include <optional>

namespace larkspan::platform {

/// Knows when folders were last used, from a store beside the file system. This one is the list of recent
/// files that the desktop's applications share: recently-used.xbel in $XDG_DATA_HOME, else in .local/share of
/// $HOME or, without that, of the home folder of the password database. It is only ever read, and again when
/// it has changed. Another desktop or a test installs another with `Installed`.
/// Thread:  any.
/// Failure: without a list, or one beyond 64 MB, nothing is known.
class LastUsed {
 public:
  virtual ~LastUsed() = default;
  /// When the folder, or something in it, was last used, as far as the store knows.
  virtual std::optional<Date> lastUsedDate(const URL& folder) const;

  static const LastUsed& current() { return *slot().load(); }
  static std::atomic<LastUsed*>& slot();
};

}  // namespace larkspan::platform

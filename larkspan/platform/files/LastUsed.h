#pragma once

#include "larkspan/platform/base/Date.h"
#include "larkspan/platform/base/URL.h"

#include <atomic>
#include <optional>

namespace larkspan::platform {

/// Knows when folders were last used, from a store beside the file system. This one knows nothing; a desktop
/// or a test installs another with `Installed`.
/// Thread: any.
class LastUsed {
 public:
  virtual ~LastUsed() = default;
  /// When the folder was last used, as far as the store knows.
  virtual std::optional<Date> lastUsedDate(const URL& folder) const;

  static const LastUsed& current() { return *slot().load(); }
  static std::atomic<LastUsed*>& slot();
};

}  // namespace larkspan::platform

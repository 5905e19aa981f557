#pragma once

#include "larkspan/platform/base/Clock.h"

#include <deque>
#include <optional>
#include <string>

namespace larkspan::platform {

/// How often a program may still be started that ends before it is of any use: after `limits::kMaximumFailedStarts` within
/// `limits::kStartWindow` no more until the oldest lies as long back.
/// Thread: any, one at a time.
class StartBudget {
 public:
  /// Nothing when it may be started, or why not, in English.
  std::optional<std::string> refusal(const std::string& name);
  /// A start failed just now.
  void noteFailure() { failures_.push_back(Clock::current().monotonicNow()); }

 private:
  std::deque<MonotonicTime> failures_;
};

}  // namespace larkspan::platform

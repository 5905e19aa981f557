#pragma once

#include "larkspan/platform/base/Clock.h"
#include "larkspan/platform/base/Limits.h"

#include <cstddef>
#include <functional>
#include <utility>

namespace larkspan::platform {

/// How much of what another process does goes to the log.
/// Owner:  whoever writes the lines.
/// Thread: one at a time.
/// Limits: see `limits::kMaximumPrint`.
class LogBudget {
 public:
  /// `report` is told how many lines were left out: in the next window before its first line, or at the end.
  explicit LogBudget(std::function<void(std::size_t lines)> report) : report_(std::move(report)) {}
  ~LogBudget() { reportDropped(); }
  LogBudget(const LogBudget&) = delete;
  LogBudget& operator=(const LogBudget&) = delete;

  /// Whether a line of this many bytes may be written.
  bool allows(std::size_t bytes) {
    const MonotonicTime now = Clock::current().monotonicNow();
    if (now - windowStart_ >= limits::kPrintWindow) {
      reportDropped();
      windowStart_ = now;
      bytes_ = 0;
    }
    bytes_ += bytes + limits::kPrintOverhead;
    if (bytes_ <= limits::kMaximumPrint) return true;
    ++dropped_;
    return false;
  }

 private:
  void reportDropped() {
    if (const std::size_t dropped = std::exchange(dropped_, 0)) report_(dropped);
  }

  const std::function<void(std::size_t lines)> report_;
  MonotonicTime windowStart_{};
  std::size_t bytes_ = 0;
  std::size_t dropped_ = 0;
};

}  // namespace larkspan::platform

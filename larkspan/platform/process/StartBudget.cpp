#include "larkspan/platform/process/StartBudget.h"

#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Limits.h"

namespace larkspan::platform {

std::optional<std::string> StartBudget::refusal(const std::string& name) {
  const MonotonicTime now = Clock::current().monotonicNow();
  while (!failures_.empty() && now - failures_.front() >= limits::kStartWindow) failures_.pop_front();
  if (failures_.size() < limits::kMaximumFailedStarts) return std::nullopt;
  const auto wait = std::chrono::ceil<std::chrono::seconds>(failures_.front() + limits::kStartWindow - now);
  return format("%@ ended %zu times right after its start; it is not started again for %lld seconds", name,
                failures_.size(), static_cast<long long>(wait.count()));
}

}  // namespace larkspan::platform

#include "extensions/caches/PartialItems.h"

#include "larkspan/host/LKSCallbackManager.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"

#include <algorithm>

namespace larkspan::caches {

PartialItems::~PartialItems() {
  const std::lock_guard lock(waiting_->mutex);
  waiting_->items.clear();
}

void PartialItems::add(const MessageItem& item) {
  const std::lock_guard lock(waiting_->mutex);
  waiting_->items.push_back(item);
  if (waiting_->items.size() > 1) return;
  const auto delay = waiting_->sentAt + kInterval - platform::Clock::current().monotonicNow();
  platform::DispatchQueue::global()->after(std::max(delay, platform::MonotonicTime(0)),
                                           [waiting = waiting_] { send(*waiting); });
}

void PartialItems::send(Waiting& waiting) {
  const std::lock_guard lock(waiting.mutex);
  if (waiting.items.empty()) return;
  LKSCallbackManager::sharedInstance().sendPartialResourceItems(waiting.items);
  waiting.items.clear();
  waiting.sentAt = platform::Clock::current().monotonicNow();
}

}  // namespace larkspan::caches

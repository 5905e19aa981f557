#include "larkspan/platform/files/WalkProgress.h"

#include <utility>

namespace larkspan::platform {

std::string WalkProgress::currentFolder() const {
  wanted_.store(true, std::memory_order_relaxed);
  const std::lock_guard lock(mutex_);
  return folder_;
}

void WalkProgress::add(int64_t bytes, int64_t entries) {
  bytes_.fetch_add(bytes, std::memory_order_relaxed);
  entries_.fetch_add(entries, std::memory_order_relaxed);
}

void WalkProgress::noteFolder(std::string path) {
  wanted_.store(false, std::memory_order_relaxed);
  const std::lock_guard lock(mutex_);
  folder_ = std::move(path);
}

}  // namespace larkspan::platform

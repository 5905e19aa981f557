#include "larkspan/platform/files/WalkProgress.h"

#include "larkspan/platform/base/Saturating.h"

#include <utility>

namespace larkspan::platform {

std::string WalkProgress::currentFolder() const {
  wanted_.store(true, std::memory_order_relaxed);
  const std::lock_guard lock(mutex_);
  return folder_;
}

void WalkProgress::add(int64_t bytes, int64_t entries) {
  addSaturating(bytes_, bytes);
  addSaturating(entries_, entries);
}

void WalkProgress::noteFolder(std::string path) {
  wanted_.store(false, std::memory_order_relaxed);
  const std::lock_guard lock(mutex_);
  folder_ = std::move(path);
}

}  // namespace larkspan::platform

#include "larkspan/platform/archive/InternedKeys.h"

#include "larkspan/platform/base/Limits.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <mutex>

namespace larkspan::platform {

namespace {

/// Open addressing, half full at most: a look-up is a hash and a few comparisons, without a lock. Entries are
/// never removed.
constexpr std::size_t kSlots = std::bit_ceil(2 * limits::kMaximumInternedKeys);
constinit std::atomic<const std::string_view*> table[kSlots];
constinit std::mutex writing;
constinit std::size_t internedCount = 0;

std::size_t slotOf(std::string_view text) {
  uint64_t first = 0;
  uint64_t last = 0;
  const std::size_t length = std::min(text.size(), sizeof first);
  if (length > 0) {
    std::memcpy(&first, text.data(), length);
    std::memcpy(&last, text.data() + text.size() - length, length);
  }
  const uint64_t mixed = (first ^ std::rotl(last, 29) ^ text.size()) * 0x9E3779B97F4A7C15ULL;
  return mixed >> (64 - std::countr_zero(kSlots));
}

/// The slot that holds the text, or the free one where it belongs.
std::atomic<const std::string_view*>& slotFor(std::string_view text) {
  for (std::size_t slot = slotOf(text);; slot = (slot + 1) % kSlots) {
    const std::string_view* known = table[slot].load(std::memory_order_acquire);
    if (!known || *known == text) return table[slot];
  }
}

}  // namespace

void internKeys(std::span<const Key> keys) {
  const std::lock_guard lock(writing);
  for (const Key& key : keys) {
    auto& slot = slotFor(key);
    if (slot.load(std::memory_order_relaxed)) continue;
    if (internedCount == limits::kMaximumInternedKeys) return;
    ++internedCount;
    slot.store(new std::string_view(key), std::memory_order_release);
  }
}

Slice internedKey(std::string_view text) {
  const std::string_view* known = slotFor(text).load(std::memory_order_acquire);
  return known ? Slice::immortal(*known) : Slice::copy(text);
}

}  // namespace larkspan::platform

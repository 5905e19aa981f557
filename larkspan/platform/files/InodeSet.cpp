#include "larkspan/platform/files/InodeSet.h"

#include <utility>

namespace larkspan::platform {

namespace {

std::size_t hashOf(uint64_t device, uint64_t number) {
  uint64_t hash = (number ^ (device << 40)) * 0x9E3779B97F4A7C15u;
  return hash ^ (hash >> 32);
}

}  // namespace

bool InodeSet::insert(uint64_t device, uint64_t number) {
  const std::size_t hash = hashOf(device, number);
  Shard& shard = shards_[hash & ((1 << kShardBits) - 1)];
  const std::lock_guard lock(shard.mutex);
  return shard.insert({device, number}, hash >> kShardBits);
}

bool InodeSet::Shard::insert(Inode inode, std::size_t hash) {
  static constexpr Inode kFree{0, 0};
  if (inode == kFree) return !std::exchange(hasZero, true);
  if (slots.empty()) slots.resize(16, kFree);
  const auto slotOf = [this](Inode wanted, std::size_t at) -> Inode& {
    for (;; ++at) {
      Inode& slot = slots[at & (slots.size() - 1)];
      if (slot == wanted || slot == kFree) return slot;
    }
  };
  Inode& slot = slotOf(inode, hash);
  if (slot == inode) return false;
  slot = inode;
  if (++count * 4 > slots.size() * 3) {
    std::vector<Inode> old(slots.size() * 2, kFree);
    old.swap(slots);
    for (const Inode& each : old) {
      if (each != kFree) slotOf(each, hashOf(each.device, each.number) >> kShardBits) = each;
    }
  }
  return true;
}

}  // namespace larkspan::platform

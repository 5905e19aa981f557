#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace larkspan::platform {

/// The inodes that a walk has met, of those that it may meet again. Costs 16 to 32 bytes each.
/// Thread: any.
class InodeSet {
 public:
  /// Whether the inode was not in yet.
  bool insert(uint64_t device, uint64_t number);

 private:
  struct Inode {
    uint64_t device, number;
    bool operator==(const Inode&) const = default;
  };
  /// Open addressing with linear probing. A slot of zeros is free; the inode that is all zeros is kept apart.
  struct Shard {
    bool insert(Inode inode, std::size_t hash);

    std::mutex mutex;
    std::vector<Inode> slots;
    std::size_t count = 0;
    bool hasZero = false;
  };
  static constexpr unsigned kShardBits = 3;
  Shard shards_[1 << kShardBits];
};

}  // namespace larkspan::platform

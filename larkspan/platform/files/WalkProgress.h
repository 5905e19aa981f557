#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace larkspan::platform {

/// Watches and stops one walk over a tree, be it sizing or deletion: the caller hands it to the walk and asks
/// from other threads.
/// Owner:  the caller, until the walk has returned. Walks that get the same one after another are summed; once
///         cancelled it stops them all.
/// Thread: any, at any time.
class WalkProgress {
 public:
  WalkProgress() = default;
  WalkProgress(const WalkProgress&) = delete;
  WalkProgress& operator=(const WalkProgress&) = delete;

  /// Allocated bytes counted so far; deletion counts none.
  int64_t bytes() const { return bytes_.load(std::memory_order_relaxed); }
  /// Entries counted or removed so far.
  int64_t entries() const { return entries_.load(std::memory_order_relaxed); }
  /// Path of a folder the walk was in, any bytes; empty before the first. That is the first folder, until
  /// somebody asks: then the walk notes the next one that a thread of it enters, so that one nobody watches
  /// spells out a single path.
  std::string currentFolder() const;

  /// Makes each thread of the walk stop before its next entry.
  void cancel() { cancelled_.store(true, std::memory_order_relaxed); }
  bool isCancelled() const { return cancelled_.load(std::memory_order_relaxed); }

  /// For the walk: adds what was just counted.
  void add(int64_t bytes, int64_t entries);
  /// For the walk: whether somebody waits for a folder, and that folder.
  bool wantsFolder() const { return wanted_.load(std::memory_order_relaxed); }
  void noteFolder(std::string path);

 private:
  std::atomic<int64_t> bytes_ = 0;
  std::atomic<int64_t> entries_ = 0;
  std::atomic<bool> cancelled_ = false;
  mutable std::atomic<bool> wanted_ = true;
  mutable std::mutex mutex_;
  std::string folder_;
};

}  // namespace larkspan::platform

#pragma once

#include "larkspan/platform/files/Directory.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace larkspan::platform {

/// The threads of a walk. A walk begins as one part on the caller's thread. While threads are idle, whoever
/// walks gives half of what it has noted for later away as a part of its own, so that no thread runs out of
/// work while another has plenty, and nobody pays for sharing while all are busy. Threads are started only
/// when there is a part for them, as children of the caller: they have its CPU and I/O priority.
/// Owner:   the walk; the threads end with this.
/// Thread:  `run` on one thread at a time, the rest on those that run a part.
/// Limits:  as many threads as processors, at most `kMaximumThreads`, and parts for half of the descriptors
///          that the process may have.
class WalkCrew {
 public:
  static constexpr unsigned kMaximumThreads = 8;
  /// Parts begun, waiting or queued at a time; each has a `DirectoryStack`.
  static constexpr unsigned kMaximumParts = 2 * kMaximumThreads;

  class Part;

  /// Something of which parts were given away, and which cannot go on before they are done.
  class Awaited {
   private:
    friend class WalkCrew;
    std::atomic<unsigned> holders_{1};  // Whoever gave, until it waits, and the parts.
    std::shared_ptr<Part> giver_;       // While it waits.
  };

  /// What one thread walks at a time.
  class Part : public std::enable_shared_from_this<Part> {
   public:
    virtual ~Part() = default;
    /// Walks to the end and answers true; or answers false after `mustWait`, and is run again later, perhaps
    /// by another thread. Buffers of the reader are the thread's.
    virtual bool run(DirectoryReader& reader) = 0;

   protected:
    /// Whether some of the parts are not done yet. If so `run` has to return false at once and touch nothing
    /// any more: another thread may run this part already.
    bool mustWait(Awaited& awaited);

   private:
    friend class WalkCrew;
    std::shared_ptr<Awaited> awaited_;
  };

  WalkCrew();
  ~WalkCrew();
  WalkCrew(const WalkCrew&) = delete;
  WalkCrew& operator=(const WalkCrew&) = delete;

  /// Returns when the part and all that came of it are done.
  void run(std::shared_ptr<Part> part);
  /// Whether a part would be welcome. Costs a load.
  bool isHungry() const { return appetite_.load(std::memory_order_relaxed) > 0; }
  /// Queues a part, for which somebody may wait.
  void give(std::shared_ptr<Part> part, std::shared_ptr<Awaited> awaited = nullptr);

 private:
  void work(bool isHelper);
  void updateAppetite();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<Part>> queue_;
  unsigned alive_ = 0;  // Parts that are not done.
  unsigned idle_ = 0;   // Threads without one.
  bool ends_ = false;
  const unsigned partsAllowed_;
  std::size_t helpersAllowed_;
  std::vector<std::thread> helpers_;
  std::atomic<int> appetite_ = 0;
};

}  // namespace larkspan::platform

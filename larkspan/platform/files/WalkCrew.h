#pragma once

#include "larkspan/platform/files/DirectoryStack.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace larkspan::platform {

/// The threads of a walk. A walk begins as one part on the caller's thread. While fewer parts are queued than
/// there may be other threads, who has done something and walks on gives half of what it has noted for later
/// away as a part of its own, or lets one read a large folder along; otherwise sharing costs a load. Each does
/// what it read itself, while the kernel's records of it are in its processor's cache. Threads are started only
/// when there is something for them; those of a low-priority thread are such threads, too.
/// Owner:   the walk; no thread runs anything of it once this ends.
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

  /// What one thread walks at a time: from a start on downwards.
  class Part : public std::enable_shared_from_this<Part> {
   public:
    virtual ~Part() = default;
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;
    /// Walks to the end and answers true; or answers false after `mustWait`, and is run again later, perhaps
    /// by another thread. Buffers of the reader are the thread's.
    virtual bool run(DirectoryReader& reader) = 0;

   protected:
    Part(WalkCrew& crew, DirectoryStack::Start start, uint64_t mount, FolderOpening opening)
        : crew_(crew), stack_(std::move(start), mount, opening) {}

    /// Where another part is wanted and it is worth it, gives half of what is pending away; or lets one read on
    /// with this one in the top folder, of which `reading` is open and has just given these entries.
    void giveAway();
    void shareReading(int reading, std::string_view entries);
    /// Gives `crew_` a part for what is pending at the start, a folder that is `level` levels beneath this part's
    /// own, and for what it gets to read of it: `reading`, if any, moves on whoever reads. When that fails, this
    /// part meets the same.
    virtual void give(DirectoryStack::Start start, std::size_t level, Descriptor reading) = 0;

    /// Whether some of the parts are not done yet. If so `run` has to return false at once and touch nothing
    /// any more: another thread may run this part already.
    bool mustWait(Awaited& awaited);

    WalkCrew& crew_;
    DirectoryStack stack_;
    int64_t done_ = 0;  // Entries so far, which the part counts.

   private:
    friend class WalkCrew;
    bool mayGive() const;
    std::shared_ptr<Awaited> awaited_;
  };

  WalkCrew();
  ~WalkCrew();
  WalkCrew(const WalkCrew&) = delete;
  WalkCrew& operator=(const WalkCrew&) = delete;

  /// Returns when the part and all that came of it are done.
  void run(std::shared_ptr<Part> part);
  /// Queues a part, for which somebody may wait.
  void give(std::shared_ptr<Part> part, std::shared_ptr<Awaited> awaited = nullptr);

 private:
  void work(bool isHelper);
  void updateAppetite();
  void callHelper();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<Part>> queue_;
  unsigned alive_ = 0;  // Parts that are not done.
  unsigned idle_ = 0;   // Threads without one.
  bool ends_ = false;
  const unsigned partsAllowed_;
  unsigned helpersAllowed_;
  unsigned helpers_ = 0;
  std::atomic<int> appetite_ = 0;
};

}  // namespace larkspan::platform

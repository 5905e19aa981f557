#pragma once

#include "larkspan/platform/base/Error.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace larkspan::platform {

class DispatchQueue;

/// The bits of an event's flag word. They say what may have happened at a path since the batch before; what is
/// there now tells the file system.
enum FileEventFlag : uint32_t {
  kEventMustScanSubdirectories = 0x1,  ///< Events were lost: look at the path and everything beneath it.
  kEventUserDropped = 0x2,             ///< They were too many for this process to keep.
  kEventKernelDropped = 0x4,           ///< They were too many for the kernel's queue.
  kEventRootChanged = 0x20,            ///< Another thing, or nothing, stands at a watched path now.
  kEventItemCreated = 0x100,
  kEventItemRemoved = 0x200,
  kEventItemMetadataModified = 0x400,  ///< Permissions, owner, times, extended attributes or link count.
  kEventItemRenamed = 0x800,           ///< Moved away from the path, or to it.
  kEventItemModified = 0x1000,
  kEventItemCloned = 0x400000,  ///< inotify(7) does not tell it.
};

/// The bits that a stream is created with.
enum EventStreamFlag : uint32_t {
  kEventStreamPathStrings = 0x1,  ///< Paths are strings; they always are.
  kEventStreamFileEvents = 0x10,  ///< Events name what changed; without it, the folder that it stands in.
};

/// Something changed at a path.
struct FileEvent {
  std::string path;  ///< The watched path and the names down from it. Any bytes.
  uint32_t flags;    ///< Of `FileEventFlag`.
};

struct EventStreamOptions {
  std::vector<std::string> paths;       ///< Folders, or files; they need not exist. Relative ones count from
                                        ///< the current folder of now.
  std::chrono::nanoseconds latency{0};  ///< How long the first event of a batch waits for others.
  uint32_t flags = kEventStreamFileEvents;  ///< Of `EventStreamFlag`.
};

/// Tells in batches what changes beneath a set of paths from its creation on.
///
/// Who keeps a model of the tree has one that equals the disk once that is at rest if it looks again at the path
/// of each event in turn; forgets what it knew beneath the path for `kEventItemCreated`, `kEventItemRemoved` and
/// `kEventItemRenamed`, as another folder may stand there by now, and where there is none; and looks at
/// everything beneath it for `kEventMustScanSubdirectories`. So what is in a folder that appears, be it new or
/// moved, is told as created after it. Neighbouring events at one path become one.
/// Owner:   the caller; its end is a `stop()`.
/// Thread:  any, one at a time.
/// Failure: events that cannot be kept, and watches that run out later, become an event that says
///          `kEventMustScanSubdirectories` for each watched path, twice a minute for as long as watches are
///          short; nothing is lost in silence. A path that becomes another thing which may not be read is told
///          likewise, and said in the console log; what then becomes of it, and of folders on the way to a path
///          that may not be read, is told within half a minute.
/// Limits:  those of inotify(7): one watch for each folder; what other machines change, and what is written
///          through a memory map, is not seen. Folders beneath a path that may not be read, and other mounts, are
///          left out. A folder that two paths reach is told by one of them.
class EventStream {
 public:
  using Handler = std::function<void(std::span<const FileEvent>)>;

  virtual ~EventStream() = default;
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;

  /// Has batches delivered on the queue from now on, one at a time whatever the queue, what happened since the
  /// creation among them. To be called once.
  virtual std::optional<Error> start(std::shared_ptr<DispatchQueue> queue) = 0;
  /// No batch follows once this returns: it waits for one that is being delivered, unless the handler itself
  /// calls, so the caller must not hold a lock that the handler takes. Idempotent.
  virtual void stop() = 0;

 protected:
  EventStream() = default;
};

/// Makes event streams; this one over inotify(7). A test installs another with `Installed`.
/// Thread: any.
class EventStreams {
 public:
  virtual ~EventStreams() = default;
  /// A stream that sees every change from the return on, or nothing and the reason, which names the path that
  /// may not be read, or the limit where one of inotify's is too low. Blocks the caller while all folders are walked.
  virtual std::unique_ptr<EventStream> make(const EventStreamOptions& options, EventStream::Handler handler,
                                            std::optional<Error>& error);

  static EventStreams& current() { return *slot().load(); }
  static std::atomic<EventStreams*>& slot();
};

}  // namespace larkspan::platform

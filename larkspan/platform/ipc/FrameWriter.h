#pragma once

#include "larkspan/platform/base/ByteBuffer.h"
#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/base/Error.h"
#include "larkspan/platform/dispatch/IoSource.h"

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace larkspan::platform {

/// Writes frames to a socket in their order: at once as far as the kernel takes them, the rest on the input/output
/// thread.
/// Owner:  std::shared_ptr.
/// Thread: any. It has a lock of its own, since the peer may have answered before the writing returns.
/// Limits: `limits::kMaximumOutbound` bytes wait, of which a frame takes at least `limits::kLeastOutbound`.
class FrameWriter : public std::enable_shared_from_this<FrameWriter> {
 public:
  /// `name` says in errors who the peer is.
  FrameWriter(std::shared_ptr<const Descriptor> socket, std::string name);

  /// An error when too much waits already, or cannot be watched. That the peer takes nothing more is none: reading
  /// finds out why, after what it still said.
  std::optional<Error> write(ByteBuffer frame);
  /// Drops what waits, and what is written from now on.
  void close();

 private:
  void flush();
  void drop();
  void resume();

  const std::shared_ptr<const Descriptor> socket_;
  const std::string name_;
  std::mutex mutex_;
  std::shared_ptr<IoSource> room_;  // Made when something has to wait for the first time.
  std::deque<ByteBuffer> waiting_;
  std::size_t written_ = 0;  // Of the first.
  std::size_t cost_ = 0;     // Of all.
  bool closed_ = false;
};

}  // namespace larkspan::platform

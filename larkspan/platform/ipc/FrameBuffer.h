#pragma once

#include "larkspan/platform/base/Slice.h"

#include <cstddef>
#include <span>

namespace larkspan::platform {

/// Cuts the bytes of a stream into frames.
///
/// Bytes are received into one buffer, from which short frames are copied. A frame that has not come whole moves
/// into a block of its own and goes on arriving there; the block grows with it and becomes the frame's slice.
///
/// Thread: one at a time.
/// Limits: takes memory in `room` alone, at most twice what has arrived of a frame and `kSize`. It is for the caller
///         to look at `length` before that.
class FrameBuffer {
 public:
  static constexpr std::size_t kSize = std::size_t{64} << 10;

  // Leaves the buffer uninitialised, to touch no more pages than bytes come.
  FrameBuffer() {}  // NOLINT(modernize-use-equals-default)

  /// Where the next bytes go, once `next` has no more frames; never empty.
  std::span<char> room();
  /// So many bytes stand at the front of what `room` gave.
  void add(std::size_t count) { (length_ > 0 ? blockFilled_ : end_) += count; }
  /// Takes the next frame without its length; false when it is not whole yet.
  bool next(Slice& frame);
  /// Whether a frame has begun that is not whole.
  bool isInside() const { return length_ > 0 || begin_ < end_; }
  /// What that frame says its length is; 0 as long as it has not.
  std::size_t length() const;

 private:
  std::size_t begin_ = 0;  // The bytes of `buffer_` that have not been taken.
  std::size_t end_ = 0;
  std::size_t length_ = 0;  // Of the frame that arrives in the block; 0 for none.
  std::size_t blockFilled_ = 0;
  Slice block_;
  char* blockBytes_ = nullptr;
  char buffer_[kSize];
};

}  // namespace larkspan::platform

#include "larkspan/platform/ipc/FrameBuffer.h"

#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/ipc/Frame.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace larkspan::platform {

std::size_t FrameBuffer::length() const {
  if (length_ > 0 || end_ - begin_ < kFrameLengthSize) return length_;
  return detail::loadBigEndian(buffer_ + begin_, kFrameLengthSize);
}

bool FrameBuffer::next(Slice& frame) {
  if (length_ > 0) {
    if (blockFilled_ < length_) return false;
    frame = std::exchange(block_, {});
    length_ = 0;
    return true;
  }
  const std::size_t size = length();
  if (end_ - begin_ < kFrameLengthSize + size) return false;
  frame = Slice::copy({buffer_ + begin_ + kFrameLengthSize, size});
  begin_ += kFrameLengthSize + size;
  return true;
}

std::span<char> FrameBuffer::room() {
  if (length_ > 0) {
    if (blockFilled_ == block_.size()) block_.resize(std::min(length_, 2 * blockFilled_), blockBytes_);
  } else if (length_ = length(); length_ > 0) {
    const char* const first = buffer_ + begin_ + kFrameLengthSize;
    blockFilled_ = end_ - begin_ - kFrameLengthSize;
    block_ = Slice::allocate(std::min(length_, kSize + 2 * blockFilled_), blockBytes_);
    std::memcpy(blockBytes_, first, blockFilled_);
    begin_ = end_ = 0;
  } else {
    // What is left is less than a length.
    std::memmove(buffer_, buffer_ + begin_, end_ - begin_);
    end_ -= std::exchange(begin_, 0);
    return {buffer_ + end_, kSize - end_};
  }
  return {blockBytes_ + blockFilled_, block_.size() - blockFilled_};
}

}  // namespace larkspan::platform

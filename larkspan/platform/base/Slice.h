#pragma once

#include "larkspan/platform/base/ByteBuffer.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace larkspan::platform {

/// An immutable run of bytes that is cheap to copy: bytes that live forever, or a share in one
/// reference-counted block, so that a value may point into a received buffer without copying it.
/// Thread: as std::string; the share count is atomic.
/// Limits: 4 GiB - 1 bytes; longer input throws std::length_error.
class Slice {
 public:
  Slice() noexcept = default;
  Slice(const Slice& other) noexcept : data_(other.data_), size_(other.size_), block_(other.block_) {
    retain();
  }
  Slice(Slice&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        block_(std::exchange(other.block_, nullptr)) {}
  Slice& operator=(Slice other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(block_, other.block_);
    return *this;
  }
  ~Slice() { release(); }

  /// A block of its own with these bytes.
  static Slice copy(std::string_view bytes);
  /// Borrows bytes that are never freed or changed, such as a literal.
  static Slice immortal(std::string_view bytes) noexcept;
  /// A buffer to append the bytes of a slice to, which `adopt` then takes as they stand.
  static ByteBuffer emptyBuffer();
  static Slice adopt(ByteBuffer buffer);
  /// A new block of `size` bytes, to be filled through `writable` before the slice is shared.
  static Slice allocate(std::size_t size, char*& writable);
  /// Gives a block that `allocate` made, and that is not shared yet, another size. Its bytes stay as far as
  /// they fit, but may move: `writable` is set anew.
  void resize(std::size_t size, char*& writable);

  /// `length` bytes from `offset`, sharing the block; both must lie inside.
  Slice part(std::size_t offset, std::size_t length) const noexcept;

  std::string_view view() const noexcept { return {data_, size_}; }
  const char* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  /// How many bytes the slice keeps in memory; 0 for those that live forever.
  std::size_t blockSize() const noexcept { return block_ ? block_->size : 0; }

  friend bool operator==(const Slice& a, const Slice& b) noexcept {
    return a.size_ == b.size_ && (a.data_ == b.data_ || a.view() == b.view());
  }

 private:
  struct Block {
    std::atomic<uint32_t> shares{1};
    uint32_t size;
  };
  void retain() const noexcept {
    if (block_) block_->shares.fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept;

  const char* data_ = nullptr;
  uint32_t size_ = 0;
  Block* block_ = nullptr;
};

}  // namespace larkspan::platform

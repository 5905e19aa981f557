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
/// Limits: 4 GiB less `kBlockHead` bytes; longer input throws std::length_error.
class Slice {
 public:
  Slice() noexcept = default;
  Slice(const Slice& other) noexcept : data_(other.data_), size_(other.size_), start_(other.start_) {
    if (start_ != 0) block()->shares.fetch_add(1, std::memory_order_relaxed);
  }
  Slice(Slice&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        start_(std::exchange(other.start_, 0)) {}
  Slice& operator=(Slice other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(start_, other.start_);
    return *this;
  }
  ~Slice() { release(); }

  /// A block of its own with these bytes.
  static Slice copy(std::string_view bytes);
  /// Borrows bytes that are never freed or changed, such as a literal.
  static Slice immortal(std::string_view bytes) noexcept;
  /// A buffer to append the bytes of a slice to, which `adopt` then takes as they stand.
  static ByteBuffer emptyBuffer();
  /// The buffer is one of `emptyBuffer`.
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
  std::size_t blockSize() const noexcept { return start_ != 0 ? block()->size : 0; }

  friend bool operator==(const Slice& a, const Slice& b) noexcept {
    return a.size_ == b.size_ && (a.data_ == b.data_ || a.view() == b.view());
  }

 private:
  struct Block {
    std::atomic<uint32_t> shares{1};
    uint32_t size;
  };
  static constexpr std::size_t kBlockHead = sizeof(Block);
  Block* block() const noexcept { return reinterpret_cast<Block*>(const_cast<char*>(data_) - start_); }
  void release() noexcept;

  const char* data_ = nullptr;
  uint32_t size_ = 0;
  uint32_t start_ = 0;  // How far behind the block's begin the bytes are; 0 without a block.
};

}  // namespace larkspan::platform

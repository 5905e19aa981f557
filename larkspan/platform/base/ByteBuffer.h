#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

namespace larkspan::platform {

/// Bytes that are appended to: as std::string, but what is written need not be filled first, and a large
/// buffer grows by moving its pages instead of copying them (realloc(3)).
/// Owner:   a value that moves.
/// Thread:  one at a time.
/// Failure: std::bad_alloc where there is no memory.
class ByteBuffer {
 public:
  ByteBuffer() = default;
  ByteBuffer(ByteBuffer&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  ByteBuffer& operator=(ByteBuffer&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    return *this;
  }
  ~ByteBuffer() { std::free(data_); }

  const char* data() const { return data_; }
  char* data() { return data_; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  std::string_view view() const { return {data_, size_}; }

  /// Room for this many bytes behind the last, to be written there and then `advance`d over.
  char* room(std::size_t bytes) {
    if (capacity_ - size_ < bytes) grow(bytes);
    return data_ + size_;
  }
  void advance(std::size_t bytes) { size_ += bytes; }
  void append(std::string_view bytes) {
    if (bytes.empty()) return;
    std::memcpy(room(bytes.size()), bytes.data(), bytes.size());
    advance(bytes.size());
  }
  /// The bytes for the caller to free(3).
  char* release() {
    size_ = capacity_ = 0;
    return std::exchange(data_, nullptr);
  }
  /// Takes back all but the first `size` bytes.
  void truncate(std::size_t size) { size_ = size; }

 private:
  void grow(std::size_t bytes) {
    constexpr std::size_t kFirst = 256;
    std::size_t capacity = capacity_ < kFirst ? kFirst : 2 * capacity_;
    if (capacity - size_ < bytes) capacity = size_ + bytes;
    void* const moved = std::realloc(data_, capacity);
    if (!moved) throw std::bad_alloc();
    data_ = static_cast<char*>(moved);
    capacity_ = capacity;
  }

  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace larkspan::platform

#include "larkspan/platform/base/Slice.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

namespace larkspan::platform {

Slice Slice::allocate(std::size_t size, char*& writable) {
  Slice result;
  result.resize(size, writable);
  return result;
}

// Of a large block realloc(3) moves the pages, not the bytes.
void Slice::resize(std::size_t size, char*& writable) {
  if (size > std::numeric_limits<uint32_t>::max() - kBlockHead)
    throw std::length_error("Slice: more than 4 GiB");
  void* const memory = std::realloc(start_ != 0 ? block() : nullptr, kBlockHead + size);
  if (!memory) throw std::bad_alloc();
  new (memory) Block{1, static_cast<uint32_t>(size)};
  writable = static_cast<char*>(memory) + kBlockHead;
  data_ = writable;
  size_ = static_cast<uint32_t>(size);
  start_ = kBlockHead;
}

Slice Slice::copy(std::string_view bytes) {
  if (bytes.empty()) return {};
  char* writable = nullptr;
  Slice result = allocate(bytes.size(), writable);
  std::memcpy(writable, bytes.data(), bytes.size());
  return result;
}

ByteBuffer Slice::emptyBuffer() {
  ByteBuffer buffer;
  buffer.room(kBlockHead);
  buffer.advance(kBlockHead);
  return buffer;
}

Slice Slice::adopt(ByteBuffer buffer) {
  const std::size_t size = buffer.size() - kBlockHead;
  Slice result;
  result.start_ = kBlockHead;
  result.data_ = buffer.release() + kBlockHead;
  char* writable = nullptr;
  result.resize(size, writable);
  return result;
}

Slice Slice::immortal(std::string_view bytes) noexcept {
  Slice result;
  result.data_ = bytes.data();
  result.size_ = static_cast<uint32_t>(bytes.size());
  return result;
}

Slice Slice::part(std::size_t offset, std::size_t length) const noexcept {
  Slice result = *this;
  result.data_ += offset;
  if (result.start_ != 0) result.start_ += static_cast<uint32_t>(offset);
  result.size_ = static_cast<uint32_t>(length);
  return result;
}

void Slice::release() noexcept {
  if (start_ != 0 && block()->shares.fetch_sub(1, std::memory_order_acq_rel) == 1) std::free(block());
}

}  // namespace larkspan::platform

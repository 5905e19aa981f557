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
  if (size > std::numeric_limits<uint32_t>::max()) throw std::length_error("Slice: more than 4 GiB");
  void* const memory = std::realloc(static_cast<void*>(block_), sizeof(Block) + size);
  if (!memory) throw std::bad_alloc();
  block_ = new (memory) Block{1, static_cast<uint32_t>(size)};
  writable = reinterpret_cast<char*>(block_ + 1);
  data_ = writable;
  size_ = static_cast<uint32_t>(size);
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
  buffer.room(sizeof(Block));
  buffer.advance(sizeof(Block));
  return buffer;
}

Slice Slice::adopt(ByteBuffer buffer) {
  const std::size_t size = buffer.size() - sizeof(Block);
  Slice result;
  result.block_ = reinterpret_cast<Block*>(buffer.release());
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
  result.size_ = static_cast<uint32_t>(length);
  return result;
}

void Slice::release() noexcept {
  if (block_ && block_->shares.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    block_->~Block();
    std::free(block_);
  }
}

}  // namespace larkspan::platform

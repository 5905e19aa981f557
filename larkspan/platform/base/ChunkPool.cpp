#include "larkspan/platform/base/ChunkPool.h"

#include <cstdlib>
#include <new>

namespace larkspan::platform {

namespace {
/// What the pool holds of the chunk that it takes from: more than there can be objects.
constexpr uint32_t kHeld = ChunkPool::kChunk;
}  // namespace

void ChunkPool::nextChunk() {
  leaveChunk();
  void* const memory = std::aligned_alloc(kChunk, kChunk);
  if (!memory) throw std::bad_alloc();
  chunk_ = new (memory) Chunk{kHeld};
  used_ = sizeof(Chunk);
  objects_ = 0;
}

void ChunkPool::leaveChunk() noexcept {
  if (chunk_) drop(chunk_, kHeld - objects_);
  chunk_ = nullptr;
}

void ChunkPool::give(void* object) noexcept {
  drop(reinterpret_cast<Chunk*>(reinterpret_cast<uintptr_t>(object) & ~(kChunk - 1)), 1);
}

void ChunkPool::drop(Chunk* chunk, uint32_t objects) noexcept {
  if (chunk->objects.fetch_sub(objects, std::memory_order_acq_rel) == objects) std::free(chunk);
}

}  // namespace larkspan::platform

#include "larkspan/platform/base/ChunkPool.h"

#include <cstdlib>
#include <mutex>
#include <new>
#include <utility>

namespace larkspan::platform {

namespace {

/// What the pool holds of the chunk that it takes from: more than there can be objects.
constexpr uint32_t kHeld = ChunkPool::kChunk;

/// Chunks that wait for the next list: pages that are there already cost less than new ones (2 MiB at most).
constexpr std::size_t kMostSpare = 128;
struct Spare {
  Spare* next;
};
constinit std::mutex mutex;
constinit Spare* spares = nullptr;
constinit std::size_t spareCount = 0;

void* newChunk() {
  {
    const std::lock_guard lock(mutex);
    if (spares) {
      --spareCount;
      return std::exchange(spares, spares->next);
    }
  }
  void* memory = nullptr;
  if (posix_memalign(&memory, ChunkPool::kAlignment, ChunkPool::kChunk) != 0) throw std::bad_alloc();
  return memory;
}

void freeChunk(void* memory) {
  {
    const std::lock_guard lock(mutex);
    if (spareCount < kMostSpare) {
      ++spareCount;
      spares = new (memory) Spare{spares};
      return;
    }
  }
  std::free(memory);
}

}  // namespace

void ChunkPool::nextChunk() {
  leaveChunk();
  chunk_ = new (newChunk()) Chunk{kHeld};
  used_ = sizeof(Chunk);
  objects_ = 0;
}

void ChunkPool::leaveChunk() noexcept {
  if (chunk_) drop(chunk_, kHeld - objects_);
  chunk_ = nullptr;
}

void ChunkPool::give(void* object) noexcept {
  if (kIsChecked) return ::operator delete(object);
  drop(reinterpret_cast<Chunk*>(reinterpret_cast<uintptr_t>(object) & ~(kAlignment - 1)), 1);
}

void ChunkPool::drop(Chunk* chunk, uint32_t objects) noexcept {
  if (chunk->objects.fetch_sub(objects, std::memory_order_acq_rel) == objects) freeChunk(chunk);
}

}  // namespace larkspan::platform

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

namespace larkspan::platform {

/// Memory for small objects that are made together, such as the items of a list: cut from chunks, each of which is freed
/// when the last of its objects has gone, but for a few that wait for the next pool. An object that is kept keeps its chunk.
/// Owner:   objects may outlive the pool.
/// Thread:  `take` one at a time; `give` from any.
/// Failure: std::bad_alloc where there is no memory.
class ChunkPool {
 public:
  static constexpr std::size_t kAlignment = std::size_t{16} << 10;
  /// Leaves room for the allocator's own header, so that chunks lie side by side.
  static constexpr std::size_t kChunk = kAlignment - 2 * sizeof(void*);

  ChunkPool() = default;
  ChunkPool(const ChunkPool&) = delete;
  ~ChunkPool() { leaveChunk(); }

  /// Room for an object of the usual alignment, far smaller than a chunk; until `give`.
  void* take(std::size_t bytes) {
    if (kIsChecked) return ::operator new(bytes);
    bytes = (bytes + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
    if (!chunk_ || used_ + bytes > kChunk) nextChunk();
    void* const taken = reinterpret_cast<char*>(chunk_) + used_;
    used_ += bytes;
    ++objects_;
    return taken;
  }
  static void give(void* object) noexcept;

  /// For std::allocate_shared.
  template <typename T>
  struct Allocator {
    using value_type = T;
    explicit Allocator(ChunkPool& from) : pool(&from) {}
    template <typename U>
    Allocator(const Allocator<U>& other) : pool(other.pool) {}
    T* allocate(std::size_t count) {
      static_assert(sizeof(T) <= kChunk / 16 && alignof(T) <= alignof(std::max_align_t));
      return static_cast<T*>(pool->take(count * sizeof(T)));
    }
    void deallocate(T* object, std::size_t) noexcept { give(object); }
    friend bool operator==(const Allocator& a, const Allocator& b) { return a.pool == b.pool; }

    ChunkPool* pool;  ///< May have gone when an object is given back.
  };

 private:
  /// The address sanitizer is to see each object by itself.
#if defined(__SANITIZE_ADDRESS__)
  static constexpr bool kIsChecked = true;
#elif defined(__has_feature)
  static constexpr bool kIsChecked = __has_feature(address_sanitizer);
#else
  static constexpr bool kIsChecked = false;
#endif
  /// Stands at the front of its chunk, which is aligned to `kAlignment`.
  struct alignas(std::max_align_t) Chunk {
    std::atomic<uint32_t> objects;
  };
  void nextChunk();
  void leaveChunk() noexcept;
  static void drop(Chunk* chunk, uint32_t objects) noexcept;

  Chunk* chunk_ = nullptr;
  std::size_t used_ = 0;
  uint32_t objects_ = 0;
};

}  // namespace larkspan::platform

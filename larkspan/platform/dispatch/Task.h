#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

namespace larkspan::platform {

/// A move-only `void()` callable: what queues and timers run. It may be called more than once. A callable of
/// at most `kInlineSize` bytes that moves without throwing lives inside the task; a larger one costs an
/// allocation.
/// Thread:  as any value.
/// Failure: calling an empty task is undefined.
class Task {
 public:
  static constexpr std::size_t kInlineSize = 48;

  Task() noexcept = default;
  Task(std::nullptr_t) noexcept {}

  template <class Callable>
  requires(!std::is_same_v<std::decay_t<Callable>, Task> && std::is_invocable_v<std::decay_t<Callable>&>)
      Task(Callable&& callable) {
    using Stored = std::decay_t<Callable>;
    if constexpr (kFitsInline<Stored>) {
      new (storage_) Stored(std::forward<Callable>(callable));
      operations_ = &kInline<Stored>;
    } else {
      *reinterpret_cast<Stored**>(storage_) = new Stored(std::forward<Callable>(callable));
      operations_ = &kOnHeap<Stored>;
    }
  }

  Task(Task&& other) noexcept { take(other); }
  Task& operator=(Task&& other) noexcept {
    if (this != &other) {
      reset();
      take(other);
    }
    return *this;
  }
  ~Task() { reset(); }

  explicit operator bool() const noexcept { return operations_ != nullptr; }
  void operator()() { operations_->call(storage_); }

  /// Destroys the callable and what it captured.
  void reset() noexcept {
    if (const Operations* operations = std::exchange(operations_, nullptr); operations && operations->destroy)
      operations->destroy(storage_);
  }

 private:
  struct Operations {
    void (*call)(void* storage);
    void (*relocate)(void* from, void* to) noexcept;  // Null: copying the bytes does.
    void (*destroy)(void* storage) noexcept;          // Null: nothing to do.
  };

  template <class Stored>
  static constexpr bool kFitsInline =
      sizeof(Stored) <= kInlineSize &&
      alignof(Stored) <= alignof(void*) && std::is_nothrow_move_constructible_v<Stored>;

  template <class Stored>
  static Stored& stored(void* storage) {
    return *std::launder(reinterpret_cast<Stored*>(storage));
  }

  template <class Stored>
  static void relocate(void* from, void* to) noexcept {
    new (to) Stored(std::move(stored<Stored>(from)));
    stored<Stored>(from).~Stored();
  }

  template <class Stored>
  static constexpr Operations kInline{[](void* storage) { stored<Stored>(storage)(); },
                                      std::is_trivially_copyable_v<Stored> ? nullptr : &relocate<Stored>,
                                      std::is_trivially_destructible_v<Stored>
                                          ? nullptr
                                          : static_cast<void (*)(void*) noexcept>([](void* storage) noexcept {
                                              stored<Stored>(storage).~Stored();
                                            })};

  template <class Stored>
  static constexpr Operations kOnHeap{[](void* storage) { (*stored<Stored*>(storage))(); }, nullptr,
                                      [](void* storage) noexcept { delete stored<Stored*>(storage); }};

  void take(Task& other) noexcept {
    operations_ = std::exchange(other.operations_, nullptr);
    if (!operations_) return;
    if (operations_->relocate)
      operations_->relocate(other.storage_, storage_);
    else
      std::memcpy(storage_, other.storage_, kInlineSize);
  }

  const Operations* operations_ = nullptr;
  alignas(void*) std::byte storage_[kInlineSize];
};

}  // namespace larkspan::platform

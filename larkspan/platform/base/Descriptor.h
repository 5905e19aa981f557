#pragma once

#include <atomic>
#include <utility>

#include <unistd.h>

namespace larkspan::platform {

/// Owns one file descriptor, or none (-1), and closes it.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }
  int release() { return std::exchange(number_, -1); }
  void reset(int number = -1) {
    const int old = std::exchange(number_, number);
    if (old >= 0) close(old);
  }

 private:
  int number_ = -1;
};

/// The descriptor that is kept there for the life of its owner. Where there is none yet, what `make` answers is kept, unless that
/// is -1: then the next call tries again. Any thread.
template <typename Make>
int keptDescriptor(std::atomic<int>& kept, Make make) {
  int known = kept;
  if (known >= 0) return known;
  Descriptor made(make());
  if (made && kept.compare_exchange_strong(known, made.get())) return made.release();
  // Another thread may have been faster.
  return kept;
}

}  // namespace larkspan::platform

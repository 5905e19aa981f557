#pragma once

#include <cstddef>

namespace larkspan::platform {

/// What a message has taken of `limits` so far, which hold for all of its frames together.
struct MessageCost {
  /// Of the frames before this one.
  std::size_t bytes = 0;
  std::size_t elements = 0;
  /// The largest of them, in bytes.
  std::size_t largest = 0;
  /// Of the tables so far: values in their rows, and bytes that those would take which stand there once for many rows.
  std::size_t cells = 0;
  std::size_t repeated = 0;
};

}  // namespace larkspan::platform

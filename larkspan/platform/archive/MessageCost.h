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
  /// Values in the rows of its tables.
  std::size_t cells = 0;
  /// Bytes of the values of "same" columns, written out for each row.
  std::size_t repeated = 0;
  /// Bytes of the prefixes of texts and URLs, written out for each row. Apart, so that what was read can be written again: the
  /// writer may find prefixes where the sender wrote none.
  std::size_t prefixes = 0;
};

}  // namespace larkspan::platform

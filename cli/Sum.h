#pragma once

#include <cstddef>
#include <cstdint>

namespace larkspan::cli {

/// How many items, and how many bytes those have whose size is known. Saturates.
struct Sum {
  std::size_t count = 0;
  int64_t bytes = 0;

  void add(int64_t size) {
    ++count;
    if (size > 0 && __builtin_add_overflow(bytes, size, &bytes)) bytes = INT64_MAX;
  }
};

}  // namespace larkspan::cli

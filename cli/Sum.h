#pragma once

#include "larkspan/platform/base/Saturating.h"

#include <cstddef>
#include <cstdint>

namespace larkspan::cli {

/// How many items, and how many bytes those have whose size is known. Saturates.
struct Sum {
  std::size_t count = 0;
  int64_t bytes = 0;

  void add(int64_t size) {
    ++count;
    if (size > 0) bytes = platform::saturatingSum(bytes, size);
  }
};

}  // namespace larkspan::cli

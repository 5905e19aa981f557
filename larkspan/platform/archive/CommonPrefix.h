#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace larkspan::platform {

/// How many bytes both begin with.
inline std::size_t commonPrefix(std::string_view a, std::string_view b) {
  const std::size_t size = std::min(a.size(), b.size());
  std::size_t at = 0;
  for (uint64_t x, y; at + sizeof x <= size; at += sizeof x) {
    std::memcpy(&x, a.data() + at, sizeof x);
    std::memcpy(&y, b.data() + at, sizeof y);
    if (x == y) continue;
    const bool isLittle = std::endian::native == std::endian::little;
    return at + static_cast<std::size_t>(isLittle ? std::countr_zero(x ^ y) : std::countl_zero(x ^ y)) / 8;
  }
  while (at < size && a[at] == b[at]) ++at;
  return at;
}

}  // namespace larkspan::platform

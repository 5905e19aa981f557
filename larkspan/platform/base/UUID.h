#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>

namespace larkspan::platform {

/// A random (version 4) universally unique identifier, RFC 9562.
struct UUID {
  std::array<uint8_t, 16> bytes{};

  static UUID random();
  /// Lower-case hexadecimal in groups of 8-4-4-4-12.
  std::string description() const;

  friend auto operator<=>(const UUID&, const UUID&) = default;
};

}  // namespace larkspan::platform

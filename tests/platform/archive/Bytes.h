#pragma once

#include <string>
#include <string_view>

namespace larkspan::platform {

/// The bytes of a hexadecimal text; blanks are ignored.
inline std::string bytesOf(std::string_view hexadecimal) {
  std::string digits;
  for (const char c : hexadecimal) {
    if (c != ' ') digits += c;
  }
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

}  // namespace larkspan::platform

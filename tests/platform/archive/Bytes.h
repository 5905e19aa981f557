#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace larkspan::platform {

/// The bytes of a hexadecimal text.
inline std::string bytesOf(const std::string& digits) {
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

/// The parts of a text between blanks.
inline std::vector<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> result;
  for (std::string word; stream >> word;) result.push_back(word);
  return result;
}

}  // namespace larkspan::platform

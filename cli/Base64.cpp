#include "cli/Base64.h"

#include <cstdint>

namespace larkspan::cli {

namespace {
constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
}

std::string base64(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t group = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      group = group << 8 | (i + k < bytes.size() ? static_cast<unsigned char>(bytes[i + k]) : 0u);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      text += i + k <= bytes.size() ? kAlphabet[group >> (18 - 6 * k) & 63] : '=';
    }
  }
  return text;
}

std::optional<std::string> bytesFromBase64(std::string_view text) {
  std::string bytes;
  uint32_t group = 0;
  unsigned bits = 0;
  for (const char c : text.substr(0, text.find('='))) {
    const std::size_t digit = kAlphabet.find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    group = group << 6 | static_cast<uint32_t>(digit);
    bits += 6;
    if (bits < 8) continue;
    bits -= 8;
    bytes += static_cast<char>(group >> bits & 0xFF);
  }
  // Padding and the bits that are left over have one right form.
  if (base64(bytes) != text) return std::nullopt;
  return bytes;
}

}  // namespace larkspan::cli

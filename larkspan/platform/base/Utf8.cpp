#include "larkspan/platform/base/Utf8.h"

#include <bit>
#include <cstdint>
#include <cstring>

namespace larkspan::platform {

namespace {

/// Of eight bytes, those that no ASCII character has.
constexpr uint64_t kHighBits = 0x8080808080808080;

/// Length of the well-formed sequence at `at`, or 0; `bad` gets the length of the maximal malformed prefix.
std::size_t sequenceLength(std::string_view bytes, std::size_t at, std::size_t& bad) {
  const auto byte = [&](std::size_t i) {
    return i < bytes.size() ? static_cast<uint8_t>(bytes[i]) : uint8_t{0};
  };
  const uint8_t lead = byte(at);
  if (lead < 0x80) return 1;
  bad = 1;
  std::size_t length = 0;
  uint8_t low = 0x80;
  uint8_t high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    const uint8_t next = byte(at + i);
    if (next < low || next > high) return 0;
    low = 0x80;
    high = 0xBF;
    bad = i + 1;
  }
  return length;
}

/// The first byte from `at` on that is not part of well-formed UTF-8, or the end.
std::size_t validPrefix(std::string_view bytes, std::size_t at, std::size_t& bad) {
  while (at < bytes.size()) {
    if (uint64_t word; bytes.size() - at >= sizeof word) {
      std::memcpy(&word, bytes.data() + at, sizeof word);
      word &= kHighBits;
      at += std::endian::native == std::endian::little ? static_cast<std::size_t>(std::countr_zero(word)) / 8
                                                       : static_cast<std::size_t>(std::countl_zero(word)) / 8;
      if (word == 0) continue;
    }
    const std::size_t length = sequenceLength(bytes, at, bad);
    if (length == 0) return at;
    at += length;
  }
  return bytes.size();
}

/// Nearly all text is; the last word overlaps the one before, so that no byte is looked at by itself.
bool isAscii(std::string_view bytes) {
  constexpr std::size_t kWord = sizeof(uint64_t);
  if (bytes.size() < kWord) {
    unsigned all = 0;
    for (const char byte : bytes) all |= static_cast<uint8_t>(byte);
    return all < 0x80;
  }
  uint64_t all = 0;
  uint64_t word;
  for (std::size_t at = 0; at + kWord < bytes.size(); at += kWord) {
    std::memcpy(&word, bytes.data() + at, kWord);
    all |= word;
  }
  std::memcpy(&word, bytes.data() + bytes.size() - kWord, kWord);
  return ((all | word) & kHighBits) == 0;
}

}  // namespace

bool isValidUtf8(std::string_view bytes) {
  if (isAscii(bytes)) return true;
  std::size_t bad = 0;
  return validPrefix(bytes, 0, bad) == bytes.size();
}

std::string repairedUtf8(std::string_view bytes) {
  std::string result;
  result.reserve(bytes.size());
  for (std::size_t at = 0; at < bytes.size();) {
    std::size_t bad = 0;
    const std::size_t end = validPrefix(bytes, at, bad);
    result.append(bytes.substr(at, end - at));
    if (end == bytes.size()) break;
    result += "\xEF\xBF\xBD";
    at = end + bad;
  }
  return result;
}

std::string shortened(std::string_view text, std::size_t size) {
  if (text.size() <= size) return std::string(text);
  while (isInsideCharacter(text, size)) --size;
  return std::string(text.substr(0, size)) + "…";
}

}  // namespace larkspan::platform

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace larkspan::platform {

/// Whether the bytes are well-formed UTF-8 (RFC 3629: no surrogates, no overlong forms, at most U+10FFFF).
bool isValidUtf8(std::string_view bytes);

/// Whether a character of the text begins before that byte of it and ends behind it; never at its first.
inline bool isInsideCharacter(std::string_view text, std::size_t at) {
  return at > 0 && at < text.size() && (static_cast<uint8_t>(text[at]) & 0xC0) == 0x80;
}

/// The text for display: U+FFFD stands for each longest beginning of a sequence that breaks off, and for each
/// byte that begins none (Unicode, section 3.9, "maximal subparts"). Well-formed text is returned as it is.
std::string repairedUtf8(std::string_view bytes);

/// The text, or of a longer one what stands in its first `size` bytes, up to the end of a character, and "…".
std::string shortened(std::string_view text, std::size_t size);

}  // namespace larkspan::platform

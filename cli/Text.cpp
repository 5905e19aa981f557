#include "cli/Text.h"

#include "larkspan/platform/base/Value.h"

#include <cstdio>
#include <utility>

#include <wchar.h>

namespace larkspan::cli {

namespace {

/// Takes the first character off well-formed UTF-8: the character and its bytes.
std::pair<char32_t, std::string_view> nextCharacter(std::string_view& text) {
  const auto first = static_cast<unsigned char>(text[0]);
  const std::size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  char32_t character = length == 1 ? first : first & (0x7Fu >> length);
  const std::string_view bytes = text.substr(0, length);
  for (const char byte : bytes.substr(1))
    character = character << 6 | (static_cast<unsigned char>(byte) & 0x3F);
  text.remove_prefix(bytes.size());
  return {character, bytes};
}

bool isDeceptive(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x061C || c == 0x200E || c == 0x200F ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

void appendEscape(std::string& text, const char* format, char32_t character) {
  char escape[16];
  std::snprintf(escape, sizeof escape, format, static_cast<unsigned>(character));
  text += escape;
}

std::size_t characterWidth(char32_t c) {
  const int width = wcwidth(static_cast<wchar_t>(c));
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

}  // namespace

std::string printable(std::string_view text) {
  // A value holds well-formed UTF-8 only.
  const platform::Value repaired(text);
  std::string result;
  for (std::string_view rest = repaired.text(); !rest.empty();) {
    const auto [character, bytes] = nextCharacter(rest);
    if (!isDeceptive(character)) {
      result += bytes;
    } else if (character == '\n') {
      result += "\\n";
    } else if (character == '\t') {
      result += "\\t";
    } else {
      appendEscape(result, character < 0x100 ? "\\x%02x" : "\\u%04x", character);
    }
  }
  return result;
}

std::string printableJson(std::string_view json) {
  std::string result;
  result.reserve(json.size());
  while (!json.empty()) {
    const auto [character, bytes] = nextCharacter(json);
    if (character != '\n' && isDeceptive(character)) {
      appendEscape(result, "\\u%04x", character);
    } else {
      result += bytes;
    }
  }
  return result;
}

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  while (!text.empty()) width += characterWidth(nextCharacter(text).first);
  return width;
}

std::string cutToWidth(std::string_view text, std::size_t width) {
  if (width == 0 || displayWidth(text) <= width) return std::string(text);
  std::string result;
  std::size_t used = 1;
  while (!text.empty()) {
    const auto [character, bytes] = nextCharacter(text);
    used += characterWidth(character);
    if (used > width) break;
    result += bytes;
  }
  return result + "…";
}

}  // namespace larkspan::cli

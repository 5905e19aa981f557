#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace larkspan::cli {

/// The UTF-8 text with everything escaped that could steer a terminal or deceive its reader: control
/// characters ("\n",
/// "\x1b") and those that turn the direction of writing or break lines ("\u202e"). What comes from other
/// processes and from files is printed no other way.
std::string printable(std::string_view text);
/// The same for JSON, in which it says the same with other letters.
std::string printableJson(std::string_view json);
/// Columns that printable text takes on a terminal (wcwidth(3)).
std::size_t displayWidth(std::string_view text);
/// The text, cut to so many columns with an ellipsis at the end; 0 leaves it alone.
std::string cutToWidth(std::string_view text, std::size_t width);

}  // namespace larkspan::cli

#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace larkspan::platform {

/// The program and the arguments of an `Exec` value, or the reason in English why it is malformed.
/// Quoting is that of freedesktop.org's desktop-entry-spec ("The Exec key"): arguments are separated
/// by spaces; one with a reserved character stands whole in double quotes, within which '"', '`', '$' and '\'
/// follow a backslash.
/// "%%" is a percent sign; there are no field codes and no control characters.
/// A program that has a slash but does not start with one is taken from `folder`.
std::variant<std::vector<std::string>, std::string> parseExecLine(std::string_view line,
                                                                  std::string_view folder);

}  // namespace larkspan::platform

#pragma once

#include <string>
#include <string_view>

namespace larkspan {

/// The library's text for the key in the user's language (gettext domain "larkspan"), else in English; a key
/// without a text is its own text. Any thread; the language is what the program chose with setlocale(3).
std::string LKSLocalizedStringFromFramework(std::string_view key);

}  // namespace larkspan

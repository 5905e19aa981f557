#pragma once

#include <string>

namespace larkspan::trash {

/// The extension's text for the key in the user's language (gettext domain "larkspan-trash"), else in
/// English.
std::string text(const char* key);

}  // namespace larkspan::trash

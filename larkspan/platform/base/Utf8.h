#pragma once

#include <string>
#include <string_view>

namespace larkspan::platform {

/// Whether the bytes are well-formed UTF-8 (RFC 3629: no surrogates, no overlong forms, at most U+10FFFF).
bool isValidUtf8(std::string_view bytes);

/// The text with each malformed run replaced by U+FFFD, for display; well-formed text is returned as it is.
std::string repairedUtf8(std::string_view bytes);

}  // namespace larkspan::platform

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace larkspan::cli {

/// Base64 with padding (RFC 4648, section 4).
std::string base64(std::string_view bytes);
/// The bytes; nothing for what `base64` would not have written.
std::optional<std::string> bytesFromBase64(std::string_view text);

}  // namespace larkspan::cli

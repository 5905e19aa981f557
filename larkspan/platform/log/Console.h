#pragma once

#include <string_view>

namespace larkspan::platform {

/// Writes one line with a time stamp to standard error, for mistakes that a developer should see. Control
/// characters are escaped, so that no text from elsewhere can look like a line of its own.
/// Thread: any. The line is one write(2); where standard error blocks, so does this.
void consoleLog(std::string_view message);

}  // namespace larkspan::platform

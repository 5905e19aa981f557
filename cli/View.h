#pragma once

#include "cli/Asking.h"
#include "cli/Overview.h"

#include <cstddef>
#include <string>

/// What people read. Each ends in a line end; `width` is that of the terminal, or 0.
namespace larkspan::cli {

/// The program that a manifest starts, without the detours of its spelling where it exists.
std::string executableOf(const platform::Manifest& manifest);
std::string extensionsText(const std::vector<Handle>& extensions, std::size_t width);
/// What the extension says about itself, a line for each field that is not empty.
std::string infoText(const MessageItem& item);
/// A table and its total, the largest first.
std::string resourcesText(const Items& items, std::size_t width);
std::string tipsText(const Items& items);
/// Every key and value of every item.
std::string itemsText(const Items& items);
/// What one extension holds, in a few lines.
std::string overviewText(const Overview& overview, std::size_t width);

}  // namespace larkspan::cli

#pragma once

#include "larkspan/items/MessageItem.h"

#include <string>
#include <variant>

namespace larkspan::cli {

/// The items of a JSON file, "-" being standard input, or the reason in English why there are
/// none. Blocks until the file ends; takes files of at most 16 MB.
std::variant<Items, std::string> readItemsFile(const std::string& path);

}  // namespace larkspan::cli

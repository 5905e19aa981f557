#pragma once

#include "cli/Asking.h"

#include <optional>
#include <string>

namespace larkspan::cli {

/// What one extension said when it was asked for everything; what is missing it did not say.
struct Overview {
  Handle extension;
  std::optional<Items> info, resources, tips;
  std::optional<std::string> error;  ///< Why the rest is missing.
};

}  // namespace larkspan::cli

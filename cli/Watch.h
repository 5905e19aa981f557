#pragma once

#include "cli/Options.h"

namespace larkspan::cli {

/// Prints a line for each batch of changes, on the main queue and until a signal ends the program. To be called
/// once, on the initial thread, which then runs the main queue.
void watch(const Options& options);

}  // namespace larkspan::cli

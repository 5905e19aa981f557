#pragma once

#include "cli/Options.h"

namespace larkspan::cli {

/// Sizes the paths and what is in them, prints it, and ends the program. While it works, a line on the
/// terminal says how far it is. To be called once, on the initial thread, which then runs the main queue.
void runSizes(const Options& options);

}  // namespace larkspan::cli

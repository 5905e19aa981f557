#pragma once

#include "cli/Options.h"

namespace larkspan::cli {

/// Does what was asked for, on the main queue, and ends the program when it is done. To be called once, on
/// the initial thread, which then runs the main queue.
void run(const Options& options);

}  // namespace larkspan::cli

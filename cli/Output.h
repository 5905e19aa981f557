#pragma once

#include <cstddef>
#include <string_view>

namespace larkspan::cli {

/// Writes all of it to standard output. When nobody reads any more the program ends quietly, with success;
/// any other failure ends it with an error.
void writeOutput(std::string_view text);
/// The columns of the terminal that the descriptor is; 0 for no limit, when it is none.
std::size_t terminalWidth(int descriptor);
/// The same for standard output.
std::size_t outputWidth();

}  // namespace larkspan::cli

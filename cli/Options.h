#pragma once

#include <optional>
#include <string>
#include <vector>

namespace larkspan::cli {

/// What the person asked for.
struct Options {
  enum class Command { overview, extensions, info, resources, tips, ask, size, watch };

  Command command = Command::overview;
  std::string identifier;  ///< Of the extension, or its ending.
  std::string askCommand;
  std::optional<std::string> itemsFile;      ///< "-" is standard input.
  std::vector<std::string> paths, excluded;  ///< To size or to watch; to leave out.
  unsigned depth = 0;                        ///< Levels of folders to size one by one.
  bool json = false;
  bool watch = false;
  double timeout = 60;  ///< Seconds.
  double latency = 1;   ///< Seconds.
  bool ignoreMetadata = false;
};

/// Reads the command line; ends the program where that asks for help or cannot be understood.
Options parseArguments(int argc, char** argv);

}  // namespace larkspan::cli

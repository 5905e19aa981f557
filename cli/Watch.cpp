#include "cli/Watch.h"

#include "cli/Ending.h"
#include "cli/Json.h"
#include "cli/Output.h"
#include "cli/Text.h"
#include "larkspan/fs/LKSDirectoryObserver.h"

#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace larkspan::cli {

using platform::Array;
using platform::Dictionary;
using platform::Value;

namespace {

/// No path holds a tab that is printed as such.
std::string lineOf(const std::vector<std::string>& paths, bool json) {
  if (json)
    return jsonText(Dictionary{{"paths", Array(std::vector<Value>(paths.begin(), paths.end()))}}, false);
  std::string line;
  for (const std::string& path : paths) line += (line.empty() ? "" : "\t") + printable(path);
  return line;
}

}  // namespace

void watch(const Options& options) {
  // The library waits for a path to appear; who types one that is not there has mistyped it.
  for (const std::string& path : options.paths) {
    if (access(path.c_str(), F_OK) != 0) fail(path + ": " + std::strerror(errno));
  }
  std::optional<platform::Error> error;
  // Lives as long as the program.
  static const auto* const observer = new auto(LKSDirectoryObserver::initWithPaths(
      options.paths, nullptr, platform::kEventStreamFileEvents, options.latency, options.ignoreMetadata,
      [json = options.json](const std::vector<std::string>& paths) {
        if (!paths.empty()) writeOutput(lineOf(paths, json) + "\n");
      },
      &error));
  if (!*observer) fail(error->localizedDescription());
  complain("watching");  // From here on nothing is missed, which a script may wait for.
}

}  // namespace larkspan::cli

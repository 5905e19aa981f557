#include "extensions/trash/MountPoints.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace larkspan::trash {
namespace {

/// Undoes "\040" and the like.
std::string unescaped(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
      i += 3;
    } else {
      result += text[i];
    }
  }
  return result;
}

}  // namespace

std::vector<std::string> localMountPoints() {
  std::vector<std::string> result;
  const char* file = std::getenv("LARKSPAN_MOUNTINFO");
  std::ifstream mounts(file ? file : "/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    // ID PARENT DEVICE ROOT POINT OPTIONS [TAG]... - TYPE SOURCE SUPER-OPTIONS
    const std::size_t tags = line.find(" - ");
    if (tags == line.npos) continue;
    std::istringstream front(line), back(line.substr(tags + 3));
    std::string field, point, type, source;
    front >> field >> field >> field >> field >> point;
    back >> type >> source;
    point = unescaped(point);
    if (!source.starts_with("/dev/") && type != "tmpfs" && type != "zfs") continue;
    if (std::find(result.begin(), result.end(), point) == result.end()) result.push_back(std::move(point));
  }
  return result;
}

}  // namespace larkspan::trash

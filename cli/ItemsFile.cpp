#include "cli/ItemsFile.h"

#include "cli/Json.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace larkspan::cli {

namespace {

constexpr std::size_t kMaximumFile = 16'000'000;

/// All bytes that follow, or the reason why not. A file that is too large is not read further.
std::variant<std::string, const char*> readAll(int descriptor) {
  std::string text;
  char buffer[65536];
  for (;;) {
    const ssize_t count = read(descriptor, buffer, sizeof buffer);
    if (count == 0) return text;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::strerror(errno);
    text.append(buffer, static_cast<std::size_t>(count));
    if (text.size() > kMaximumFile) return "larger than 16 MB";
  }
}

}  // namespace

std::variant<Items, std::string> readItemsFile(const std::string& path) {
  const bool isInput = path == "-";
  const std::string place = (isInput ? "standard input" : path) + ": ";
  const int descriptor = isInput ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return place + std::strerror(errno);
  const auto content = readAll(descriptor);
  if (!isInput) close(descriptor);
  if (const auto* reason = std::get_if<const char*>(&content)) return place + *reason;
  auto items = itemsFromJson(std::get<std::string>(content));
  if (auto* reason = std::get_if<std::string>(&items)) return place + *reason;
  return items;
}

}  // namespace larkspan::cli

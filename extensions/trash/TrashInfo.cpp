#include "extensions/trash/TrashInfo.h"

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/base/URL.h"

#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>

namespace larkspan::trash {
namespace {

/// Twice the longest path, all of it percent-encoded, is far less.
constexpr std::size_t kMostBytes = 64 * 1024;

std::optional<platform::Date> localDate(const std::string& text) {
  std::tm time{};
  if (!strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &time)) return std::nullopt;
  time.tm_isdst = -1;
  return platform::Date{std::mktime(&time), 0};
}

bool climbs(const std::string& path) { return ("/" + path + "/").find("/../") != path.npos; }

/// Not with `KeyFile`, which refuses what the trash-spec lets stand: a key that comes twice, lines as long as
/// the longest path, bytes that are no text.
void parse(std::string_view content, TrashInfo& info) {
  bool isInGroup = false, hasPath = false;
  while (!content.empty()) {
    const std::string_view line = content.substr(0, content.find('\n'));
    content.remove_prefix(std::min(line.size() + 1, content.size()));
    const auto value = [&](std::string_view key) {
      return isInGroup && line.starts_with(key) ? std::optional(std::string(line.substr(key.size())))
                                                : std::nullopt;
    };
    // Of a key that comes twice the first counts.
    if (line.starts_with('[')) {
      isInGroup = line.starts_with("[Trash Info]");
    } else if (const auto path = value("Path="); path && !hasPath) {
      hasPath = true;
      const std::string decoded = platform::percentDecoded(*path);
      if (!climbs(decoded) && decoded.find('\0') == decoded.npos) info.path = decoded;
    } else if (const auto date = value("DeletionDate="); date && !info.deleted) {
      info.deleted = localDate(*date);
    }
  }
}

}  // namespace

std::string infoNameOf(std::string_view entryName) { return std::string(entryName) + ".trashinfo"; }

std::optional<TrashInfo> readTrashInfo(int infoFolder, const std::string& entryName) {
  const platform::Descriptor file(openat(infoFolder, infoNameOf(entryName).c_str(),
                                         O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat facts;
  if (!file || fstat(file.get(), &facts) != 0 || !S_ISREG(facts.st_mode)) return std::nullopt;
  TrashInfo info;
  info.written = {facts.st_mtim.tv_sec, static_cast<uint32_t>(facts.st_mtim.tv_nsec)};
  std::string content(kMostBytes, '\0');
  std::size_t size = 0;
  ssize_t count = 0;
  while (size < content.size() &&
         (count = read(file.get(), content.data() + size, content.size() - size)) > 0)
    size += static_cast<std::size_t>(count);
  content.resize(size);
  parse(content, info);
  return info;
}

}  // namespace larkspan::trash

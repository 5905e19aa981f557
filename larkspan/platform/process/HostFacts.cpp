#include "larkspan/platform/process/HostFacts.h"

#include "larkspan/platform/base/Descriptor.h"
#include "larkspan/platform/base/Utf8.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace larkspan::platform {

namespace {

struct Kept {
  std::mutex mutex;
  std::optional<HostFacts> facts;
};

Kept& keptFacts() {
  static auto* kept = new Kept;
  return *kept;
}

/// The beginning of a small file; empty when it cannot be read.
std::string contentOf(const char* path) {
  const Descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  std::array<char, 16 * 1024> buffer;
  const ssize_t count = file ? ::read(file.get(), buffer.data(), buffer.size()) : 0;
  return std::string(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(0, count)));
}

std::optional<std::string> firstLineOf(const char* path) {
  std::string line = contentOf(path);
  // A device tree's strings end in NUL, those of sysfs in a newline.
  line.resize(std::min(line.size(), line.find_first_of(std::string("\n\0", 2))));
  if (line.empty()) return std::nullopt;
  return repairedUtf8(line);
}

HostFacts readFacts() {
  std::string release = contentOf("/etc/os-release");
  if (release.empty()) release = contentOf("/usr/lib/os-release");
  HostFacts facts;
  facts.processorCount = std::max(1, static_cast<int>(::sysconf(_SC_NPROCESSORS_CONF)));
  const auto type = osReleaseValue(release, "RELEASE_TYPE");
  facts.isInternalInstall = type == "development" || type == "experiment";
  facts.productVersion = osReleaseValue(release, "VERSION_ID");
  facts.productType = firstLineOf("/sys/class/dmi/id/product_name");
  if (!facts.productType) facts.productType = firstLineOf("/sys/firmware/devicetree/base/model");
  return facts;
}

}  // namespace

std::optional<std::string> osReleaseValue(const std::string& content, const std::string& variable) {
  for (std::size_t at = 0; at < content.size();) {
    const std::size_t end = std::min(content.find('\n', at), content.size());
    std::string_view line(content.data() + at, end - at);
    at = end + 1;
    if (!line.starts_with(variable + "=")) continue;
    line.remove_prefix(variable.size() + 1);
    const char quote = !line.empty() && (line[0] == '"' || line[0] == '\'') ? line[0] : '\0';
    if (quote) line.remove_prefix(1);
    std::string value;
    for (std::size_t i = 0; i < line.size() && line[i] != quote; ++i) {
      if (line[i] == '\\' && quote != '\'' && i + 1 < line.size()) ++i;
      value += line[i];
    }
    if (value.empty()) return std::nullopt;
    return repairedUtf8(value);
  }
  return std::nullopt;
}

HostFacts HostFacts::current() {
  Kept& kept = keptFacts();
  const std::lock_guard lock(kept.mutex);
  if (!kept.facts) kept.facts = readFacts();
  return *kept.facts;
}

ScopedHostFacts::ScopedHostFacts(HostFacts facts) {
  const std::lock_guard lock(keptFacts().mutex);
  previous_ = std::exchange(keptFacts().facts, std::move(facts));
}

ScopedHostFacts::~ScopedHostFacts() {
  const std::lock_guard lock(keptFacts().mutex);
  keptFacts().facts = previous_;
}

}  // namespace larkspan::platform

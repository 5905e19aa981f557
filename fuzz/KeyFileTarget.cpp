#include "fuzz/Targets.h"
#include "larkspan/platform/base/Utf8.h"
#include "larkspan/platform/text/KeyFile.h"

#include <algorithm>
#include <string>

namespace larkspan::fuzz {

using namespace platform;

namespace {

/// Looks up what a line of an accepted file says.
void lookUp(const KeyFile& file, const std::string& group, std::string_view line) {
  const std::string_view key = line.substr(0, line.find_first_of(" \t[="));
  const std::string_view name = line.substr(0, line.find('='));
  const auto bracket = name.find('[');
  const auto plain = file.string(group, key);
  const auto text = file.localizedString(
      group, key, bracket == name.npos ? "" : name.substr(bracket + 1, name.find(']') - bracket - 1));
  expect(text && isValidUtf8(*text), "a key is found");
  expect(bracket != name.npos || text == plain, "without a locale the plain text is");
  const auto flag = file.boolean(group, key);
  expect(!flag || plain == (*flag ? "true" : "false"), "a boolean is one of two texts");
  expect(!file.string("no " + group, key), "a key is in its group only");
}

}  // namespace

void keyfile(std::string_view input) {
  KeyFileError error;
  const auto file = KeyFile::parse(input, error);
  const auto lines = std::count(input.begin(), input.end(), '\n') + 1;
  expect(error.reason.empty() == file.has_value() && static_cast<std::ptrdiff_t>(error.line) <= lines,
         "a refusal has a line and a reason");
  if (!file) return;
  std::string group;
  for (std::string_view rest = input; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (line.starts_with('[')) {
      group = line.substr(1, line.find(']') - 1);
      expect(file->hasGroup(group), "a group is found");
    } else if (!line.starts_with('#') && line.find('=') != line.npos) {
      lookUp(*file, group, line);
    }
  }
}

}  // namespace larkspan::fuzz

#include "fuzz/Targets.h"
#include "larkspan/platform/base/Utf8.h"
#include "larkspan/platform/text/KeyFile.h"

#include <algorithm>
#include <string>

namespace larkspan::fuzz {

using namespace platform;

void keyfile(std::string_view input) {
  KeyFileError error;
  const auto file = KeyFile::parse(input, error);
  const auto lines = std::count(input.begin(), input.end(), '\n') + 1;
  expect(error.reason.empty() == file.has_value() && static_cast<std::ptrdiff_t>(error.line) <= lines,
         "a refusal has a line and a reason");
  if (!file) return;
  // Looks up what each line says.
  std::string group;
  for (std::string_view rest = input; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (line.starts_with('[')) {
      group = line.substr(1, line.find(']') - 1);
      expect(file->hasGroup(group), "a group is found");
    } else if (!line.starts_with('#') && line.find('=') != line.npos) {
      const std::string_view key = line.substr(0, line.find_first_of(" \t[="));
      const auto text = file->localizedString(group, key, line.substr(key.size() + 1, line.find(']')));
      expect(!text || isValidUtf8(*text), "a text is well-formed");
      expect(line[key.size()] == '[' || file->string(group, key), "a key is found");
    }
  }
}

}  // namespace larkspan::fuzz

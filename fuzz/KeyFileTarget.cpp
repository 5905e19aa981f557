#include "fuzz/Targets.h"
#include "larkspan/platform/appext/ExecLine.h"
#include "larkspan/platform/appext/Manifest.h"
#include "larkspan/platform/base/Utf8.h"
#include "larkspan/platform/text/KeyFile.h"

#include <algorithm>
#include <fstream>
#include <string>

#include <unistd.h>

namespace larkspan::fuzz {

using namespace platform;

namespace {

void manifest(std::string_view text) {
  std::string folder = "/tmp/larkspan-fuzz-XXXXXX";
  expect(::mkdtemp(folder.data()), "there is a folder for a manifest");
  const std::string path = folder + "/org.example.a.extension";
  std::ofstream(path) << text;
  const auto read = readManifest(path);
  ::unlink(path.c_str());
  ::rmdir(folder.c_str());
  if (std::holds_alternative<int>(read)) return;  // The machine is short of something.
  if (const auto* reason = std::get_if<std::string>(&read))
    return expect(!reason->empty(), "a refusal says why");
  const auto& manifest = std::get<Manifest>(read);
  if (manifest.hidden) return;
  const std::string& program = manifest.exec.at(0);
  expect(program.starts_with('/') || program.find('/') == program.npos, "a program has its folder");
  std::string line;
  for (const std::string& argument : manifest.exec) {
    line += " \"";
    for (const char c : argument) {
      expect(static_cast<unsigned char>(c) >= ' ' && c != 0x7F, "no control characters");
      if (std::string_view("\"`$\\").find(c) != std::string_view::npos) line += '\\';
      line.append(c == '%' ? 2 : 1, c);
    }
    line += '"';
  }
  const auto again = parseExecLine(line, "/elsewhere");
  expect(again.index() == 0 && std::get<0>(again) == manifest.exec, "quoted arguments come back");
}

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
  if (file->hasGroup("Extension")) manifest(input);
}

}  // namespace larkspan::fuzz

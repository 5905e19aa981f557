#include "fuzz/Targets.h"
#include "larkspan/platform/base/URL.h"

#include <algorithm>
#include <string>

namespace larkspan::fuzz {

using platform::URL;

namespace {

void path(std::string_view bytes) {
  expect(platform::percentDecoded(platform::percentEncoded(bytes)) == bytes, "any bytes can be encoded");
  const std::string path = "/folder/" + std::string(bytes.substr(0, bytes.find('\0')));
  const std::string shown = path.substr(0, path.find_last_not_of('/') + 1);
  for (const URL& file : {URL::file(path), URL::file("/folder").appending(bytes)}) {
    expect(file.isFileURL() && URL::parse(file.absoluteString()) == file, "a path's URL is a file URL");
    expect(file.path() == shown, "any path comes back");
  }
}

}  // namespace

void url(std::string_view input) {
  std::string_view lines[3];
  for (std::string_view& line : lines) {
    line = input.substr(0, input.find('\n'));
    input.remove_prefix(std::min(line.size() + 1, input.size()));
  }
  path(lines[2]);
  const auto base = URL::parse(lines[0]);
  const auto reference = URL::parse(lines[1]);
  if (!base || !reference) return;
  expect(base->absoluteString() == lines[0], "the spelling is kept");
  expect(!base->isFileURL() || base->path().find('\0') == std::string::npos, "no file has a NUL in its name");
  expect(base->port().value_or(0) <= 65535, "a port fits 16 bits");

  const URL resolved = base->resolve(*reference);
  expect(URL::parse(resolved.absoluteString()) == resolved, "what is resolved is a URL");
  expect(resolved.fragment() == reference->fragment(), "the fragment is the reference's");
  // Without a path of its own a reference keeps the base's as it is.
  if (base->scheme().empty() || reference->path().empty()) return;
  expect(!resolved.scheme().empty(), "an absolute base gives an absolute URL");
  expect(base->resolve(resolved) == resolved, "resolving ends at once");
  std::string_view hierarchy = resolved.absoluteString().substr(resolved.scheme().size() + 1);
  if (const auto authority = resolved.authority()) hierarchy.remove_prefix(2 + authority->size());
  expect((std::string(hierarchy.substr(0, hierarchy.find_first_of("?#"))) + '/').find("/../") ==
             std::string::npos,
         "no dot segments are left");
}

}  // namespace larkspan::fuzz
